// SPDX-License-Identifier: Apache-2.0
// The segment list and the 32-bit "matches-any" that walks it.
#include "fuzz_common.hpp"
#include "kela_ref.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    fz::Texts t(data, size);
    if (kel_shared_sl_td *sl = kel_shared_sl_create(t.count(), t.ptrs.data())) {
        for (int guard = 0; guard < 10000; ++guard) {
            while (kel_shared_sl_argument_next(sl) != nullptr) {
            }
            (void)kel_shared_sl_argument_index(sl);
            if (kel_shared_sl_segment_next(sl) < 0) break;
        }
        (void)kel_shared_sl_segment_reset(sl);
        (void)kel_shared_sl_reset(sl);
        kel_shared_sl_destroy(sl);
    }
    shared_kela_uint32_desc_td desc{"metric", 0, 0, 1000000, nullptr};
    t.verify(shared_kela_uint32_cmp_any_veri, &desc);
    rasf_inst_t *inst = nullptr;
    kref_inst_info_t info{};
    if (shared_kela_uint32_cmp_any_cons(t.count(), t.ptrs.data(), t.slots.data(), &desc, &inst) ==
            0 &&
        kref_inst_get(inst, &info) == 0) {
        for (std::uint32_t v : {0u, 1u, 7u, 1000u, 4294967295u}) {
            std::int32_t out = 0;
            info.cmp(&v, t.count(), t.slots.data(), info.ctx, &out);
        }
        shared_kela_uint32_cmp_any_free(info.ctx);
        rasf_free_cmp_instance(inst);
    }
    std::uint32_t v = 0;
    for (const char *p : t.ptrs)
        (void)(shared_kela_uint32_cvt_string(p, nullptr, 1, &v) |
               shared_kela_uint8_cvt_string(p, nullptr, 0, &v));
    return 0;
}
