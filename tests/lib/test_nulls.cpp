// SPDX-License-Identifier: Apache-2.0
// What every exported function with a pointer parameter answers when one of
// its pointers is null (the contract the header states): one row per
// function, called first as given, then with each pointer parameter null in
// turn, the others as given.  A row's code has one letter per call:
//   0 success, another digit that bare number, I KEL_SHARED_ERR_NULL_INPUT,
//   R _NULL_RESULT, P _NULL_PARAM, A _NO_PARAM_ARRAY, C _PARAM_COUNT,
//   V _VARIABLE, B _BAD_VALUE, E _PARAMS_NOT_ALLOWED, L _NO_LOCATIONS,
//   ? another status;
//   t a text or record, n none (null), - a negative number, + one above 9,
//   . returned (no result), x not called: null is not accepted there.
// (kt::nulls in support.hpp.)  The constructors' null arguments are in
// tests/alloc's table of every constructor.
#include <utility>

#include "kela_callbacks.hpp"
#include "support.hpp"

namespace {

// Results the calls hand back: released after each call.
char *g_msg = nullptr;
const char **g_held_locs = nullptr;
shared_kela_pfxmatch_td *g_held_v4 = nullptr;
shared_kela_prefix_matchspec_td *g_held_spec = nullptr;
void release() {
    std::free(std::exchange(g_msg, nullptr));
    std::free(std::exchange(g_held_locs, nullptr));
    std::free(std::exchange(g_held_v4, nullptr));
    std::free(std::exchange(g_held_spec, nullptr));
    kref_reset();  // what a registration registered
}

vogno get_prefix(void *, void *route, shared_kela_prefix_addr_td *v, uint32_t *more) {
    *v = {2, static_cast<uint8_t *>(route), 24, 0};
    *more = 0;
    return 0;
}
vogno set_prefix(shared_kela_prefix_desc_td *, void *, void *, shared_kela_prefix_desc_td *) {
    return 0;
}
vogno no_mac(void *, void *, uint8_t *) {
    return 7;
}
vogno get_mac(void *, void *, uint8_t *value) {
    std::memset(value, 0xab, 6);
    return 0;
}
char *print_bits(void *, void *, void *) {
    return strdup("bits");
}
char *print_flags(void *, uint64_t *, shared_kela_flag64_desc_td *) {
    return strdup("flags");
}

#define ROW(want, fn, ...) EXPECT_EQ(kt::nulls(want, fn, __VA_ARGS__), want) << #fn

class NullArguments : public kt::FrameworkTest {
  protected:
    void SetUp() override {
        kt::FrameworkTest::SetUp();
        kt::after_call = release;
    }
    void TearDown() override {
        kt::after_call = nullptr;
        kt::FrameworkTest::TearDown();
    }
    kt::EveryType t;
    alignas(8) unsigned char a[64] = {10, 1, 2, 3}, b[64] = {10, 1, 2, 3};
    int32_t out = 0;
    uint32_t u = 0;
};

TEST_F(NullArguments, EveryExportedFunction) {
    using Cmp = vogno (*)(void *, void *, void *, int32_t *);
    using Print = char *(*)(void *, void *, void *);
    char **m = &g_msg;
    kt::Params one{"7"}, red{"red"}, ab{"ab"}, flag{"blackhole"}, host{"10.0.0.1"}, x{"x"};
    kt::Params four{"10.1.0.0", "16", "16", "32"}, is{"x", "T1", "up"};
    kt::Params set(kt::segments({{"10.0.0.0", "8", "8", "24"}}));
    kt::Params rhr(kt::segments({{"10.0.0.0", "8", "8", "8"}}));
    kt::Params list(kt::segments({{"5"}})), macs(kt::segments({{"0011.2233.4455"}}));
    shared_kela_uint32_desc_td u32{"u32", 0, 0, 10, nullptr};
    shared_kela_prefix_desc_td px{"px", get_prefix, set_prefix, nullptr, 0};
    shared_kela_mac_address_desc_td mac{"mac", get_mac};
    shared_kela_bitmasked_desc_td bm = t.bm;
    bm.print_value = print_bits;
    shared_kela_flag64_desc_td fl = t.fl;
    fl.print = print_flags;
    uint8_t bytes[16] = {10, 1};
    ip_addr_t ip{}, mask{};
    ASSERT_EQ(shared_kela_prefix_cvt_string_to_ipaddr("10.0.0.1", &ip, nullptr), 0u);
    shared_kela_prefix_addr_td value{2, bytes, 16, 0};
    shared_kela_pcl_query_pfx_ctx_t query{};
    kel_shared_sl_td *sl = kel_shared_sl_create(list.count(), list.vec());
    // clang-format off
    // Registration: a null list is empty ("in" needs an operator location),
    // a null descriptor refused unless the type has a fixed name.
    const char *const *l = kt::kLocations;
    char buf[64];
    ROW("000I0000", shared_kela_uint8_base_init_v2, &u, buf, 64, &t.u8, l, l, l, l);
    ROW("000I", shared_kela_uint16_base_init, &u, buf, 64, &t.u16);
    ROW("000I", shared_kela_ipv4_base_init, &u, buf, 64, &t.v4);
    ROW("0000L000", shared_kela_rhr_base_init, &u, buf, 64, &t.rhr, l, l, l, l);
    ROW("0000L000", shared_kela_track_base_init, &u, buf, 64, &u, l, nullptr, nullptr, nullptr);
    // Start-up and the segment list (its other functions take no null list).
    ROW("0R0000", kela_shared_merge_locations, &g_held_locs, kt::kLocations, kt::kLocations, kt::kLocations, kt::kLocations);
    ROW("tn", kel_shared_sl_create, list.count(), list.vec());
    ROW("1-", kel_shared_sl_reset, sl);
    ROW("1-", kel_shared_sl_segment_reset, sl);
    kel_shared_sl_destroy(sl);
    ROW("..", kel_shared_sl_destroy, nullptr);
    // The integer widths.
    for (auto cvt : {shared_kela_uint8_cvt_string, shared_kela_uint16_cvt_string, shared_kela_uint32_cvt_string})
        ROW("0P00", cvt, "7", nullptr, 1, &u);
    for (Print print : {shared_kela_uint8_base_print, shared_kela_uint16_base_print, shared_kela_uint32_base_print})
        ROW("tttt", print, nullptr, a, &u32);
    for (Cmp cmp : {shared_kela_uint8_base_cmp, shared_kela_uint16_base_cmp, shared_kela_uint32_base_cmp})
        ROW("0IIII", cmp, a, b, &u32, &out);
    ROW("0RRR", shared_kela_uint8_cmp_get_val, a, &t.u8, &u);
    ROW("0RRR", shared_kela_uint16_cmp_get_val, a, &t.u16, &u);
    ROW("0RRR", shared_kela_uint32_cmp_get_val, a, &u32, &u);
    for (auto veri : {shared_kela_uint8_retr_veri, shared_kela_uint16_retr_veri, shared_kela_uint32_retr_veri})
        ROW("0000", veri, 0, x.vec(), &u32, m);
    ROW("0IR0", shared_kela_uint32_cmp_any_veri, list.count(), list.vec(), &u32, m);
    ROW("00", shared_kela_uint32_cmp_any_free, nullptr);
    // Enumerations, bit-masked values, flags.
    ROW("0PA00", shared_kela_enum_cvt_string, "red", &t.en, nullptr, &u);
    ROW("tttt", shared_kela_enum_base_print, nullptr, a, &t.en);
    ROW("0IIII", shared_kela_enum_base_cmp, a, b, &t.en, &out);
    ROW("0IA0", shared_kela_enum_cmp_match_veri, 1, red.vec(), &t.en, m);
    ROW("0IA0", shared_kela_enum_set_assign_veri, 1, red.vec(), &t.en, m);
    ROW("0V00", shared_kela_enum_retr_veri, 1, x.vec(), &t.en, m);
    rasf_inst_t *inst = nullptr;  // the retriever of both word types
    ASSERT_EQ(shared_kela_enum_retr_cons(0, nullptr, nullptr, &t.en, &inst), 0u);
    ROW("0R00RR", kt::inst_info(inst).retrieve, a, nullptr, nullptr, &u, &t.en);
    rasf_free_retriever_instance(inst);
    ROW("tttn", shared_kela_bitmasked_base_print, nullptr, a, &bm);
    ROW("nnnn", shared_kela_bitmasked_base_print, nullptr, a, &t.bm);
    ROW("0IIII", shared_kela_bitmasked_base_cmp, a, b, &bm, &out);
    ROW("0IA0", shared_kela_bitmasked_cmp_match_veri, 1, ab.vec(), &bm, m);
    ROW("0IA0", shared_kela_bitmasked_set_assign_veri, 1, ab.vec(), &bm, m);
    ROW("0V00", shared_kela_bitmasked_retr_veri, 1, x.vec(), &bm, m);
    ROW("tttn", shared_kela_flag64_base_print, nullptr, a, &fl);
    ROW("nnnn", shared_kela_flag64_base_print, nullptr, a, &t.fl);
    ROW("0IA0", shared_kela_flag64_set_assign_veri, 1, flag.vec(), &fl, m);
    // Addresses and prefixes.
    ROW("0I00", shared_kela_ipv4_cvt_string, "10.0.0.1", nullptr, bytes);
    ROW("0IPPP0", shared_kela_pfxmatch_cvt_string, "10.0.0.0", "8", "8", "24", 2, 1, &g_held_v4);
    ROW("0x", shared_kela_ip_check_prefix, bytes, 2u, 16u);
    ROW("0II0", shared_kela_prefix_cvt_string_to_ipaddr, "10.0.0.1", &ip, &u);
    ROW("0IIII", shared_kela_prefix_cvt_string_to_pfx_acl, "10.0.0.0", "0.0.255.255", &ip, &mask);
    ROW("0IIIIIIII", shared_kela_prefix_cvt_string_to_pfx, "10.0.0.0", "8", "8", "24", &ip, &u, &u, &u, 1);
    ROW("0IIIIIIII", shared_kela_rhr_cvt_string_to_pfx, "10.0.0.0", "8", "8", "24", &ip, &u, &u, &u, 1u);
    ROW("0BBBBR", shared_kela_prefix_cvt_string_to_matchspec, "10.0.0.0", "8", "8", "24", &g_held_spec);
    ROW("xBBBBR", shared_kela_prefix_cvt_string_to_matchspec_acl, "10.0.0.0", "0.255.0.0", "8", "24", &g_held_spec);
    ROW("0II", shared_kela_prefix_ipaddr_to_pfxaddr, &ip, &value);
    shared_kela_prefix_matchspec_td *spec = nullptr;
    ASSERT_EQ(shared_kela_prefix_cvt_string_to_matchspec("10.0.0.0", "8", "8", "24", &spec), 0u);
    uint8_t inside[4] = {10, 1, 0, 0};
    value = {2, inside, 16, 0};
    ROW("100", shared_kela_prefix_match, &value, spec, SHARED_KELA_PREFIX_CMP_MATCH);
    std::free(spec);
    ASSERT_EQ(shared_kela_prefix_cvt_string_to_matchspec_acl("10.0.0.0", "0.255.255.255", "8", "24",
                                                             &spec),
              0u);
    ROW("100", shared_kela_prefix_match_acl, &value, spec);
    std::free(spec->mask);
    std::free(spec);
    for (auto [family, text] : {std::pair{2, "10.0.0.0"}, {10, "2001:db8::"}}) {
        ASSERT_EQ(shared_kela_prefix_cvt_string_to_matchspec(text, "8", "8", "24", &spec), 0u);
        value = {static_cast<uint8_t>(family), spec->addr, 16, 0};
        ROW("000", shared_kela_prefix_match_acl, &value, spec) << "a length-form entry";
        std::free(spec);
    }
    value = {2, inside, 16, 0};
    ROW("tt", shared_kela_prefix_cvt_pfx_to_string, &value, 0);
    ROW("tttt", shared_kela_prefix_base_print, nullptr, a, &px);
    ROW("0IIIR", shared_kela_prefix_base_cmp, a, b, &px, &out);
    ROW("0I00", shared_kela_prefix_cmp_match_veri, set.count(), set.vec(), &px, m);
    ROW("00", shared_kela_prefix_cmp_match_free, nullptr);
    ROW("0P00", shared_kela_prefix_set_assign_veri, 1, host.vec(), &px, m);
    ROW("EEEE", shared_kela_prefix_retr_veri, 1, x.vec(), &px, m);
    ROW("EEEEEE", shared_kela_prefix_retr_retrieve, a, a, a, &u, &px);
    ROW("..x", shared_kela_decode_pfxs, set.count(), set.vec(), &query);
    ROW("..", shared_kela_free_query_ctx, &query);
    ROW("tttt", shared_kela_ipv4_base_print, nullptr, a, &t.v4);
    ROW("0IIRR", shared_kela_ipv4_base_cmp, a, b, &t.v4, &out);
    ROW("0IA0", shared_kela_ipv4_cmp_match_veri, four.count(), four.vec(), &t.v4, m);
    ROW("00", shared_kela_ipv4_cmp_match_free, nullptr);
    ROW("EVEE", shared_kela_ipv4_retr_veri, 1, x.vec(), &t.v4, m);
    // MAC addresses, routing state.
    ROW("0Px", shared_kela_cvt_string_to_mac_address, "0011.2233.4455", bytes);
    ROW("tx", shared_kela_cvt_mac_address_to_string, bytes, 6);
    ROW("tttt", shared_kela_mac_address_base_print, nullptr, a, &mac);
    ROW("tttt", shared_kela_mac_address_base_print, nullptr, a, &t.mac);
    ROW("0IIRR", shared_kela_mac_address_base_cmp, a, b, &mac, &out);
    ROW("RIIRR", shared_kela_mac_address_base_cmp, a, b, &t.mac, &out);
    ROW("0IR0", shared_kela_mac_address_cmp_match_veri, macs.count(), macs.vec(), &mac, m);
    shared_kela_mac_address_match_ctx_td ctx{nullptr, get_mac}, no_getter{nullptr, nullptr},
        failing{nullptr, no_mac};
    ROW("00IAR", shared_kela_mac_address_cmp_match_run, a, 1u, one.slots(), &ctx, &out);
    ROW("77IAR", shared_kela_mac_address_cmp_match_run, a, 1u, one.slots(), &failing, &out);
    ROW("AAIAR", shared_kela_mac_address_cmp_match_run, a, 1u, one.slots(), &no_getter, &out);
    ROW("00", shared_kela_mac_address_cmp_match_free, nullptr);
    ROW("0I00", shared_kela_rhr_cmp_match_veri, rhr.count(), rhr.vec(), &t.rhr, m);
    ROW("0I00", shared_kela_rhr_cmp_async_veri, rhr.count(), rhr.vec(), &t.rhr, m);
    ROW("00", shared_kela_rhr_cmp_match_free, nullptr);
    ROW("00", shared_kela_rhr_cmp_async_free, nullptr);
    ROW("EEEE", shared_kela_rhr_retr_veri, 1, x.vec(), &t.rhr, m);
    ROW("0B00", shared_kela_track_cmp_veri, is.count(), is.vec(), nullptr, m);
    ROW("00", shared_kela_track_cmp_free, nullptr);
    // clang-format on
}

}  // namespace
