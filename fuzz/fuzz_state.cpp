// SPDX-License-Identifier: Apache-2.0
// The track, rib-has-route and prefix-set verifiers over fuzzed parameter
// vectors.
#include "fuzz_common.hpp"
#include "kela_callbacks.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    fz::Texts t(data, size);
    int desc = 0;
    for (rasf_verify_fn f : {shared_kela_track_cmp_veri, shared_kela_rhr_cmp_match_veri,
                             shared_kela_rhr_cmp_async_veri, shared_kela_prefix_cmp_match_veri})
        t.verify(f, &desc);
    return 0;
}
