/* SPDX-License-Identifier: Apache-2.0 */
/*
 * A client module in C11, built against an installed kela-shared: it
 * registers a 32-bit metric, an origin enumeration and a destination prefix
 * with the reference platform, compiles three conditions and evaluates them
 * against two routes.  Exit status 0 when every outcome is the expected one.
 * The first line it prints is the version of the header it was built with.
 */
#include <kela_shared/kela_ref.h>
#include <kela_shared/kela_shared.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

struct route {
    uint32_t metric; /* 32-bit element 0 */
    uint32_t origin; /* 32-bit element 1 */
    uint8_t family;
    uint8_t len;
    uint8_t addr[16];
};

static vogno get_destination(void *first, void *route, shared_kela_prefix_addr_td *value,
                             uint32_t *more) {
    struct route *r = route;
    (void)first;
    value->family = r->family;
    value->addr = r->addr;
    value->len = r->len;
    value->free_addr = 0;
    *more = 0;
    return 0;
}

static const shared_kela_enum_name_td origins[] = {{0, "igp"}, {1, "egp"}, {0, NULL}};
static shared_kela_uint32_desc_td metric = {"metric", 0, 0, 0, NULL};
static shared_kela_enum_desc_td origin = {"origin", 1, origins};
static shared_kela_prefix_desc_td destination = {"destination", get_destination, NULL, NULL, 0};
static const char *const locations[] = {"import", NULL};

static kref_stmt_t *compile(const char *attr, const char *op, size_t n, const kref_item_t *items) {
    kref_stmt_t *stmt = NULL;
    char *msg = NULL;
    vogno st = kref_compile(attr, KREF_CMP, op, "import", n, items, &msg, &stmt);
    if (st != 0) {
        fprintf(stderr, "%s %s: %s (0x%08X)\n", attr, op, msg ? msg : "refused", (unsigned)st);
        free(msg);
        exit(1);
    }
    return stmt;
}

int main(void) {
    char err[128];
    printf("kela-shared %d.%d.%d\n", KELA_SHARED_VERSION_MAJOR, KELA_SHARED_VERSION_MINOR,
           KELA_SHARED_VERSION_PATCH);
    if (shared_kela_uint32_base_init(NULL, err, (int32_t)sizeof err, &metric) != 0 ||
        shared_kela_enum_base_init_v2(NULL, err, (int32_t)sizeof err, &origin, locations, locations,
                                      locations, NULL) != 0 ||
        shared_kela_prefix_base_init(NULL, err, (int32_t)sizeof err, &destination, locations,
                                     locations, NULL, NULL) != 0) {
        fprintf(stderr, "registration failed: %s\n", err);
        return 1;
    }

    const char *ten[] = {"10"};
    const char *igp[] = {"igp"};
    const char *entry[] = {"10.0.0.0", "8", "16", "24"};
    kref_item_t le_item = {1, ten}, origin_item = {1, igp}, set_item = {4, entry};
    kref_stmt_t *le = compile("metric", "le", 1, &le_item);
    kref_stmt_t *is_igp = compile("origin", "exact-match", 1, &origin_item);
    kref_stmt_t *in_set = compile("destination", "pfxmatch", 1, &set_item);

    struct route routes[2];
    memset(routes, 0, sizeof routes);
    routes[0].metric = 5;
    routes[0].family = 2;
    routes[0].len = 16;
    routes[0].addr[0] = 10;
    routes[0].addr[1] = 1;
    routes[1].metric = 50;
    routes[1].origin = 1;
    routes[1].family = 2;
    routes[1].len = 8;
    routes[1].addr[0] = 10;

    const int32_t want[2][3] = {{1, 1, 1}, {0, 0, 0}};
    int failures = 0;
    for (int i = 0; i < 2; ++i) {
        kref_stmt_t *stmts[3] = {le, is_igp, in_set};
        for (int s = 0; s < 3; ++s) {
            int32_t out = -1;
            vogno st = kref_eval(stmts[s], &routes[i], NULL, &out);
            if (st != 0 || out != want[i][s]) ++failures;
        }
        char *text = kref_attr_print(kref_attr_find("destination"), &routes[i]);
        printf("route %s: metric le 10, origin igp, destination in 10.0.0.0/8 ge 16 le 24\n",
               text ? text : "?");
        free(text);
    }
    kref_stmt_free(le);
    kref_stmt_free(is_igp);
    kref_stmt_free(in_set);
    printf("%s\n", failures == 0 ? "all outcomes as expected" : "unexpected outcomes");
    return failures == 0 ? 0 : 1;
}
