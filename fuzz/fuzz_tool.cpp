// SPDX-License-Identifier: Apache-2.0
// kela-policy's policy and route parsers (text, JSON and bgpdump lines), and
// the compilation of what parses.
#include <string>

#include "policy.hpp"
#include "route_io.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static bool registered = [] {
        std::string error;
        return kp::register_attributes(error) == 0;
    }();
    if (!registered) return 0;
    const std::string text(reinterpret_cast<const char *>(data), size);
    kp::Route r;
    kp::RouteError rerr;
    bool skip = false;
    for (kp::Format f : {kp::Format::Text, kp::Format::Json, kp::Format::Bgpdump})
        (void)kp::parse_route(f, text, r, rerr, skip);
    kp::Policy policy;
    kp::PolicyError perr;
    if (kp::parse_policy(text, policy, perr)) (void)kp::compile_policy(policy, "import", perr);
    return 0;
}
