// SPDX-License-Identifier: Apache-2.0
// Every allocation of every type's registration, verifiers, set builds,
// prints, decoding and updates fails in turn: each failing run must end in a
// documented status (or a null text), leave no instance and no leak
// (LeakSanitizer), and the run that reaches no failure must succeed.  With
// test_constructors.cpp it reaches every allocation call of the library
// (check_sites.py proves it; an allocation added to evaluation would be a
// site no sweep reaches, so it fails there).
#include <cstring>
#include <functional>
#include <set>

#include "alloc_hook.hpp"
#include "kela_callbacks.hpp"
#include "kela_ref_state.h"
#include "support.hpp"

namespace {

using kt::Params;

// What one run produced: its status and what came out (an instance or a
// text), and how to release it.
struct Outcome {
    vogno status = 0;
    bool produced = false;
    std::function<void()> release = [] {};
};

// Fails allocation 1, 2, ... of `op` until a run reaches no failure.  A
// failing run must end in one of `allowed` (for texts: produce nothing) and
// leave no instance; the last run must give `clean` and produce.
void sweep(const char *what, const std::function<Outcome()> &op, const std::set<vogno> &allowed,
           vogno clean = 0) {
    SCOPED_TRACE(what);
    std::size_t points = 0;
    const std::size_t live = kref_live_instances();
    for (std::size_t n = 1; n < 1000; ++n) {
        kt::alloc::fail_at(n);
        Outcome r = op();
        const bool fired = kt::alloc::failed();
        kt::alloc::reset();
        if (!fired) {
            EXPECT_EQ(r.status, clean) << "the run without failure";
            EXPECT_TRUE(r.produced) << "the run without failure";
            r.release();
            break;
        }
        ++points;
        if (allowed.empty())
            EXPECT_FALSE(r.produced) << "allocation " << n << " failed, yet a text came out";
        else
            EXPECT_TRUE(allowed.count(r.status))
                << "allocation " << n << ": status 0x" << std::hex << r.status;
        r.release();
        EXPECT_EQ(kref_live_instances(), live) << "allocation " << n;
    }
    EXPECT_GT(points, 0u) << "no allocation to fail";
}

Outcome text(char *t) {
    Outcome r;
    r.produced = t != nullptr;
    r.release = [t] { std::free(t); };
    return r;
}

const vogno kNoMemory = KEL_SHARED_ERR_NO_MEMORY;
const vogno kBadValue = KEL_SHARED_ERR_BAD_VALUE;

class AllocSweep : public kt::FrameworkTest {
  protected:
    void SetUp() override {
        kt::FrameworkTest::SetUp();
        kref_state_reset();
    }
    void TearDown() override {
        kref_state_reset();
        kt::FrameworkTest::TearDown();
    }
    alignas(8) unsigned char route_[64] = {10, 1, 2, 0};
};

vogno get_value(void *, void *route, shared_kela_prefix_addr_td *v, uint32_t *more) {
    v->family = 2;
    v->addr = static_cast<uint8_t *>(route);
    v->len = 24;
    *more = 0;
    return 0;
}

TEST_F(AllocSweep, ScalarTypes) {
    shared_kela_uint8_desc_td u8{"u8", 0, 0, 10};
    ASSERT_EQ(shared_kela_uint8_range_base_init(nullptr, nullptr, 0, &u8, kt::kLocations,
                                                kt::kLocations, kt::kLocations, nullptr),
              0u);
    auto parse = [](const char *t, void *, int, uint32_t *out) -> vogno {
        if (out != nullptr) *out = static_cast<uint32_t>(std::strlen(t));
        return 0;
    };
    shared_kela_bitmasked_desc_td bm{"bm", nullptr, nullptr, +parse, 0, 1, 0x1, nullptr};
    ASSERT_EQ(shared_kela_bitmasked_base_init_v2(nullptr, nullptr, 0, &bm, kt::kLocations,
                                                 kt::kLocations, kt::kLocations, nullptr),
              0u);
    kref_op_info_t le{}, any{};
    ASSERT_EQ(kref_attr_op(kref_attr_find("u8"), KREF_CMP, "le", &le), 0u);
    ASSERT_EQ(kref_attr_op(kref_attr_find("bm"), KREF_CMP, "matches-any", &any), 0u);
    static const shared_kela_enum_name_td names[] = {{1, "red"}, {0, nullptr}};
    shared_kela_enum_desc_td en{"colour", 0, names};
    shared_kela_ipv4_desc_td v4{"peer", 0, 4};
    shared_kela_prefix_desc_td desc{"destination", get_value, nullptr, nullptr, 0};
    // A verifier's status must stand whether or not its message can be made.
    struct Verifier {
        const char *what;
        rasf_verify_fn fn;
        Params p;
        void *desc;
        std::set<vogno> allowed;
        vogno clean = 0;
    } verifiers[] = {
        // clang-format off
        {.what = "uint8 range refusal", .fn = le.verify, .p = {"300"}, .desc = &u8,
         .allowed = {KEL_SHARED_ERR_ABOVE_MAX}, .clean = KEL_SHARED_ERR_ABOVE_MAX},
        {.what = "uint8 refusal of a word", .fn = le.verify, .p = {"ten"}, .desc = &u8,
         .allowed = {kBadValue}, .clean = kBadValue},
        {.what = "enum refusal", .fn = shared_kela_enum_set_assign_veri, .p = {"blue"}, .desc = &en,
         .allowed = {kBadValue}, .clean = kBadValue},
        {.what = "bit-masked matches-any", .fn = any.verify, .p = {"arg0:1", "ab", "arg1:1", "abc"}, .desc = &bm,
         .allowed = {kBadValue}},
        {.what = "ipv4", .fn = shared_kela_ipv4_cmp_match_veri, .p = {"10.1.0.0", "16", "16", "32"}, .desc = &v4,
         .allowed = {kNoMemory}},
        {.what = "prefix assign", .fn = shared_kela_prefix_set_assign_veri, .p = {"10.0.0.1"}, .desc = &desc,
         .allowed = {0u}},
    };  // clang-format on
    for (Verifier &v : verifiers)
        sweep(
            v.what,
            [&] {
                char *msg = nullptr;
                const vogno st = v.fn(v.p.count(), v.p.vec(), v.desc, &msg);
                std::free(msg);
                return Outcome{st, true};
            },
            v.allowed, v.clean);

    // "matches-any" makes the segment list, then the message; without room
    // for either it still reports.
    shared_kela_uint32_desc_td four{"u32", 0, 0, 4, nullptr};
    Params list5{"arg0:1", "5", "arg1:1", "3"};
    std::vector<std::pair<vogno, std::string>> runs;
    sweep(
        "uint32 matches-any messages",
        [&] {
            char *msg = nullptr;
            const vogno st =
                shared_kela_uint32_cmp_any_veri(list5.count(), list5.vec(), &four, &msg);
            runs.emplace_back(st, kt::take(msg));
            return Outcome{st, true};
        },
        {kBadValue, KEL_SHARED_ERR_ABOVE_MAX}, KEL_SHARED_ERR_ABOVE_MAX);
    EXPECT_EQ(runs,
              (std::vector<std::pair<vogno, std::string>>{
                  {kBadValue, "Internal error: malformed parameters"},
                  {KEL_SHARED_ERR_ABOVE_MAX, "<null>"},
                  {KEL_SHARED_ERR_ABOVE_MAX, "Value (5) not within acceptable range: 0 - 4"}}));

    // Registration merges the location lists into one; a failure registers
    // nothing.
    shared_kela_uint32_desc_td u32{"u32", 0, 0, 100, nullptr};
    sweep("registration",
          [&] {
              const vogno st =
                  shared_kela_uint32_base_init_v2(nullptr, nullptr, 0, &u32, kt::kLocations,
                                                  kt::kLocations, kt::kLocations, kt::kLocations);
              const bool made = kref_attr_find("u32") != nullptr;
              return Outcome{st != 0 && made ? ~0u : st, made, [] { kref_reset(); }};
          },
          {kNoMemory});
}

TEST_F(AllocSweep, PrefixType) {
    shared_kela_prefix_desc_td desc{"destination", get_value, nullptr, nullptr, 0};
    for (auto [cvt, second] :
         {std::pair{&shared_kela_prefix_cvt_string_to_matchspec_acl, "0.255.0.0"},
          {shared_kela_prefix_cvt_string_to_matchspec, "8"}})
        sweep("entry",
              [&] {
                  shared_kela_prefix_matchspec_td *s = nullptr;
                  const vogno st = cvt("10.0.0.0", second, "8", "24", &s);
                  return Outcome{st, s != nullptr, [s] {
                                     if (s != nullptr) std::free(s->mask);
                                     std::free(s);
                                 }};
              },
              {kNoMemory});
    sweep("pfxmatch operand",
          [&] {
              shared_kela_pfxmatch_td *r = nullptr;
              const vogno st =
                  shared_kela_pfxmatch_cvt_string("10.0.0.0", "8", "8", "32", 2, 1, &r);
              return Outcome{st, r != nullptr, [r] { std::free(r); }};
          },
          {kNoMemory});

    // Wild, tree (two entries on one key), mask and IPv6 entries: a failed
    // build reports 4 (a segment list that cannot be made: bad value) and
    // tears everything down; without room for its print text "pfxmatch"
    // still compiles, it only prints nothing.
    Params set(kt::segments({{"0.0.0.0", "0", "0", "8"},
                             {"10.0.0.0", "8", "8", "24"},
                             {"10.0.0.0", "8", "16", "16"},
                             {"172.16.0.0", "0.15.255.255", "16", "24"},
                             {"2001:db8::", "32", "32", "48"},
                             {"10.0.0.0", "8", "20", "20"}}));
    rasf_inst_t *inst = nullptr;
    ASSERT_EQ(shared_kela_prefix_cmp_match_cons(set.count(), set.vec(), set.slots(), &desc, &inst),
              0u);
    kref_inst_info_t info = kt::inst_info(inst);
    rasf_inst_t *none = nullptr;
    kt::alloc::fail_at(1);  // the operator's context, before any entry
    EXPECT_EQ(shared_kela_prefix_cmp_match_cons(set.count(), set.vec(), set.slots(), &desc, &none),
              kNoMemory);
    kt::alloc::reset();
    for (std::uint32_t n : {0u, set.count()})
        sweep("pfxmatch print", [&] { return text(info.print(0, n, set.vec(), set.slots(), "%")); },
              {});
    shared_kela_prefix_cmp_match_free(info.ctx);
    rasf_free_cmp_instance(inst);
    sweep("decode",
          [&] {
              shared_kela_pcl_query_pfx_ctx_t q{};
              q.flags = 3;
              shared_kela_decode_pfxs(15, set.vec(), &q);
              const Outcome r{q.status, q.count == 3};
              EXPECT_LE(q.count, 3);
              shared_kela_free_query_ctx(&q);
              return r;
          },
          {kNoMemory, 4u, kBadValue, 0u});  // cutting the array back may fail and keep it larger

    Params addr{"10.0.0.1"};
    ASSERT_EQ(shared_kela_prefix_set_assign_cons(1, addr.vec(), addr.slots(), &desc, &inst), 0u);
    ASSERT_EQ(kref_inst_get(inst, &info), 0u);
    sweep("assign print",
          [&] { return text(info.set_print(0, 1, addr.vec(), addr.slots(), &desc)); }, {});
    rasf_free_set_instance(inst);
}

TEST_F(AllocSweep, RoutingStateTypes) {
    auto get_conn = [](void *, ip_rib_conn_p *conn, rib_tableid_td *table) -> vogno {
        *conn = kref_rib_conn(IP_RIB_AFI_IPV4);
        *table = 0;
        return 0;
    };
    shared_kela_rhr_desc_td rhr{"rib-has-route", +get_conn};
    Params set{"arg0:4", "10.0.0.0", "8", "8", "8", "arg1:4", "2001:db8::", "32", "32", "32"};
    rasf_inst_t *inst = nullptr;
    ASSERT_EQ(shared_kela_rhr_cmp_async_cons(set.count(), set.vec(), set.slots(), &rhr, &inst), 0u);
    kref_inst_info_t info = kt::inst_info(inst);
    std::uint64_t key = 0;
    // Each run asks anew for a key of its own.  A failed entry array is no
    // memory; a failed identifier cell leaves the request unremembered and
    // reports the registration's success.
    sweep("async update",
          [&] {
              kref_eval_rec_t rec{};
              rec.key = ++key;
              const vogno st = info.update(&rec, info.ctx, set.count(), set.vec());
              const bool remembered = kref_async_ctx(rec.key) != nullptr;
              return Outcome{st == 0 && !remembered ? kNoMemory : st, remembered};
          },
          {kNoMemory, KEL_SHARED_FOREIGN_BTREE_NO_MEMORY});
    shared_kela_rhr_cmp_async_free(info.ctx);
    rasf_free_cmp_instance(inst);

    int track = 0;
    Params is{"x", "T1", "up"};
    ASSERT_EQ(shared_kela_track_cmp_cons(is.count(), is.vec(), is.slots(), &track, &inst), 0u);
    ASSERT_EQ(kref_inst_get(inst, &info), 0u);
    sweep("is print", [&] { return text(info.print(0, 3, is.vec(), is.slots(), nullptr)); }, {});
    kref_eval_rec_t rec{};
    rec.key = 1;
    sweep("is update",
          [&] {
              return Outcome{info.update(&rec, info.ctx, 3, is.vec()),
                             static_cast<shared_kela_track_ctx_td *>(info.ctx)->name != nullptr};
          },
          {kNoMemory});
    shared_kela_track_cmp_free(info.ctx);
    rasf_free_cmp_instance(inst);
}

// Every base print in each of its cases; a print that cannot make its text
// gives null.
TEST_F(AllocSweep, BasePrints) {
    using Print = char *(*)(void *, void *, void *);
    auto cases = [&](const char *what, Print print,
                     std::initializer_list<std::pair<void *, void *>> runs) {
        for (const auto &[route, desc] : runs)
            sweep(what, [&] { return text(print(nullptr, route, desc)); }, {});
    };
    shared_kela_uint8_desc_td u8{"u8", 0, 0, 10};
    cases("uint8", shared_kela_uint8_base_print,
          {{nullptr, &u8}, {route_, nullptr}, {route_, &u8}});

    static const shared_kela_enum_name_td names[] = {{1, "red"}, {0, nullptr}};
    shared_kela_enum_desc_td en{"colour", 0, names};
    alignas(8) unsigned char red[8] = {1};
    cases("enum", shared_kela_enum_base_print,
          {{nullptr, &en}, {route_, nullptr}, {route_, &en}, {red, &en}});

    auto no_value = [](void *, void *, shared_kela_prefix_addr_td *, uint32_t *) -> vogno {
        return 1;
    };
    shared_kela_prefix_desc_td pfx{"destination", get_value, nullptr, nullptr, 0};
    shared_kela_prefix_desc_td none{"destination", +no_value, nullptr, nullptr, 0};
    cases("prefix", shared_kela_prefix_base_print,
          {{route_, &pfx}, {route_, &none}, {route_, nullptr}});
    // Without a route the text is made before the value is asked for; if
    // that copy cannot be made, the failed value gets one of its own.
    sweep("prefix without a route",
          [&] {
              char *t = shared_kela_prefix_base_print(nullptr, nullptr, &none);
              Outcome r = text(t);
              r.produced = true;
              r.status = t != nullptr && std::strcmp(t, "<<no prefix>>") != 0 ? kBadValue : 0;
              return r;
          },
          {0u});

    shared_kela_ipv4_desc_td v4{"peer", 0, 4};
    cases("ipv4", shared_kela_ipv4_base_print, {{nullptr, &v4}, {route_, nullptr}, {route_, &v4}});

    auto get_mac = [](void *, void *, uint8_t *value) -> vogno {
        std::memset(value, 0xab, 6);
        return 0;
    };
    auto no_mac = [](void *, void *, uint8_t *) -> vogno { return 19; };
    auto bad_mac = [](void *, void *, uint8_t *) -> vogno { return 7; };
    shared_kela_mac_address_desc_td mac{"mac", +get_mac}, mac19{"mac", +no_mac},
        mac7{"mac", +bad_mac};
    cases("mac", shared_kela_mac_address_base_print,
          {{nullptr, &mac}, {route_, nullptr}, {route_, &mac19}, {route_, &mac7}, {route_, &mac}});

    // The routing-state types have no descriptor; their prints come from
    // the registered attributes.
    shared_kela_rhr_desc_td rhr{"rib-has-route", nullptr};
    ASSERT_EQ(shared_kela_rhr_base_init(nullptr, nullptr, 0, &rhr, kt::kLocations, nullptr, nullptr,
                                        nullptr),
              0u);
    ASSERT_EQ(shared_kela_track_base_init(nullptr, nullptr, 0, nullptr, kt::kLocations, nullptr,
                                          nullptr, nullptr),
              0u);
    for (const char *name : {"rib-has-route", "track"}) {
        void *desc = nullptr;
        Print print = kref_attr_base_print(kref_attr_find(name), &desc);
        ASSERT_NE(print, nullptr) << name;
        cases(name, print, {{nullptr, desc}, {route_, desc}});
    }
}

}  // namespace
