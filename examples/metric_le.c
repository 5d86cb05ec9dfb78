/* SPDX-License-Identifier: Apache-2.0 */
/*
 * A client module in miniature: registers a 32-bit "metric" attribute with
 * the reference framework, compiles the condition "metric le 10" through the
 * verifier and constructor the library registered, and evaluates it against
 * a few route records.
 */
#include <stdio.h>
#include <stdlib.h>

#include "kela_ref.h"
#include "kela_shared.h"
#include "vog.h"

/* The client's route record: the library finds the metric as 32-bit
 * element 2 (byte offset 8), as the descriptor says. */
struct route {
    uint32_t prefix;
    uint32_t length;
    uint32_t metric;
};

static shared_kela_uint32_desc_td metric_desc = {"metric", 2, 0, 0, NULL};

int main(void) {
    char err[256] = "";
    vogno st = shared_kela_uint32_base_init(NULL, err, (int32_t)sizeof err, &metric_desc);
    if (st != 0) {
        fprintf(stderr, "registration failed: %s (%s)\n", err, vog_strerror(st));
        return 1;
    }

    const char *texts[] = {"10"};
    kref_item_t item = {1, texts};
    kref_stmt_t *stmt = NULL;
    char *msg = NULL;
    st = kref_compile("metric", KREF_CMP, "le", "import", 1, &item, &msg, &stmt);
    if (st != 0) {
        fprintf(stderr, "metric le 10: %s (%s)\n", msg ? msg : "refused", vog_strerror(st));
        free(msg);
        return 1;
    }

    const struct route routes[] = {
        {0x0A000000u, 8, 5},
        {0x0A010000u, 16, 10},
        {0xC0A80000u, 24, 11},
    };
    for (size_t i = 0; i < sizeof routes / sizeof routes[0]; ++i) {
        struct route r = routes[i];
        int32_t outcome = 0;
        st = kref_eval(stmt, &r, NULL, &outcome);
        char *value = kref_attr_print(kref_attr_find("metric"), &r);
        printf("%u.%u.%u.%u/%u  metric %s  metric le 10: %s\n", r.prefix >> 24,
               (r.prefix >> 16) & 0xFF, (r.prefix >> 8) & 0xFF, r.prefix & 0xFF, r.length,
               value ? value : "?",
               st != 0   ? "error"
               : outcome ? "match"
                         : "no match");
        free(value);
    }
    kref_stmt_free(stmt);
    return 0;
}
