// SPDX-License-Identifier: Apache-2.0
// The track and rib-has-route verifiers over fuzzed parameter vectors.
#include <cstdlib>

#include "fuzz_common.hpp"
#include "kela_callbacks.hpp"
#include "kela_shared.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    fz::Texts t(data, size);
    int desc = 0;
    for (auto verify : {shared_kela_track_cmp_veri, shared_kela_rhr_cmp_match_veri,
                        shared_kela_rhr_cmp_async_veri}) {
        char *msg = nullptr;
        (void)verify(t.count(), t.ptrs.data(), &desc, &msg);
        std::free(msg);
    }
    char *msg = nullptr;
    (void)shared_kela_prefix_cmp_match_veri(t.count(), t.ptrs.data(), &desc, &msg);
    std::free(msg);
    return 0;
}
