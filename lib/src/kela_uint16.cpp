// SPDX-License-Identifier: Apache-2.0
// 16-bit unsigned integer attribute.
#include "kela_uint.hpp"

namespace {
struct Width16 {
    using Desc = shared_kela_uint16_desc_td;
    using Value = std::uint16_t;
    static constexpr const char *kFile = "kela_uint16";
    static constexpr std::uint16_t kFullMax = 65535;
    static constexpr bool kValueSet = false;
    static constexpr kela::UintMessages kNumbers{.exact = {930, 931},
                                                 .le = {946, 947},
                                                 .ge = {962, 963},
                                                 .assign = {978, 979},
                                                 .retriever_list = 994};
    KELA_UINT_REGISTERED(uint16);
};
}  // namespace

KELA_UINT_EXPORTS(uint16, kela::Uint<Width16>)
