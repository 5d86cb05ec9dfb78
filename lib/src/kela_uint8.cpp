// SPDX-License-Identifier: Apache-2.0
// 8-bit unsigned integer attribute.
#include "kela_uint.hpp"

namespace {
struct Width8 {
    using Desc = shared_kela_uint8_desc_td;
    using Value = std::uint8_t;
    static constexpr const char *kFile = "kela_uint8";
    static constexpr std::uint8_t kFullMax = 255;
    static constexpr bool kValueSet = false;
    static constexpr kela::UintMessages kNumbers{.exact = {919, 920},
                                                 .le = {935, 936},
                                                 .ge = {951, 952},
                                                 .assign = {967, 968},
                                                 .retriever_list = 983};
    KELA_UINT_REGISTERED(uint8);
};
}  // namespace

KELA_UINT_EXPORTS(uint8, kela::Uint<Width8>)
