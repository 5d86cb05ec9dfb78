// SPDX-License-Identifier: Apache-2.0
// Error-code library (domains and their texts) and message facility.
#include <cstdarg>
#include <cstdio>
#include <map>

#include "ref_internal.hpp"
#include "vog.h"
#include "vup_msg.h"

namespace {

constexpr std::uint32_t kLibraryComponent = 1801;

// Our stand-in for the library's separate error-text library: one sentence
// per code of its domain.
constexpr const char *kLibraryTexts[] = {
    nullptr,
    "The address family is neither IPv4 nor IPv6.",
    "The operation was called without the attribute descriptor or context it needs.",
    "A result pointer or context is missing, or the value is absent from the route.",
    "The operator was given the wrong number of parameters.",
    "A text to convert or a parameter value is missing.",
    "The text is not a valid value of the attribute's type, or the parameters are malformed.",
    "A required input (route record, parameter vector or value slots) is missing.",
    "A prefix length or ge/le bound exceeds the address family's maximum, or ge exceeds le.",
    "The constant is above the attribute's maximum.",
    "The constant is below the attribute's minimum.",
    "Memory could not be allocated.",
    "Parameters are not allowed for this retriever.",
    "The parameter is a policy variable, but a constant is required.",
    "No location was given for the attribute.",
    "Bits are set outside the prefix mask.",
    "Reserved status; never raised.",
    "A prefix-set entry could not be placed in its tree.",
};

constexpr const char *kFrameworkTexts[] = {
    nullptr,
    "Reference framework: a required argument is missing or malformed.",
    "Reference framework: no such attribute, operator, setter or retriever.",
    "Reference framework: already registered.",
    "Reference framework: the location is not declared for this attribute or operator.",
    "Reference framework: memory could not be allocated.",
    "Reference framework: an argument list is already attached.",
    "Reference framework: the compiled instance has no function for this use.",
    "Reference framework: the parameters do not fit the argument-type list.",
};

struct Domains {
    std::mutex mu;
    std::map<std::uint32_t, std::string> dlls;
};
Domains &domains() {
    static Domains *d = new Domains;
    return *d;
}

const char *text_of(vogno status) {
    if (status == 0) return "Success";
    const std::uint32_t n = (status >> 9) & 0x3Fu;
    const bool in_domain_shape = (status & 0xC00001FFu) == 0x40000000u;
    const std::uint32_t component = (status >> 15) & 0x7FFFu;
    if (in_domain_shape && component == kLibraryComponent && n >= 1 && n <= 17)
        return kLibraryTexts[n];
    if (in_domain_shape && component == KREF_COMPONENT && n >= 1 && n <= 8)
        return kFrameworkTexts[n];
    if (status == 0xA2D28400u)
        return "The routing-table connection serves another address family than the prefix.";
    if (status == 0xC2C60200u) return "The request tree could not allocate memory.";
    return nullptr;
}

}  // namespace

extern "C" {

vogno vog_register_dll(uint32_t component, const char *dll_name) {
    KREF_ENTER("vog_register_dll", std::int64_t{component}, dll_name);
    vogno st = 0;
    if (dll_name == nullptr) {
        st = KREF_ERR_BAD_ARG;
    } else {
        Domains &d = domains();
        std::lock_guard lock(d.mu);
        auto [it, added] = d.dlls.emplace(component, dll_name);
        if (!added && it->second != dll_name) st = KREF_ERR_EXISTS;
    }
    return KREF_RESULT(st);
}

const char *vog_strerror(vogno status) {
    if (const char *t = text_of(status)) return t;
    thread_local char buf[64];
    std::snprintf(buf, sizeof buf, "Unknown status 0x%08X.", status);
    return buf;
}

void vup_errmsg(const vup_msg_rec_td *rec, int level, ...) {
    // The facility reports nothing back: a fault armed before the operation
    // drops the message, one armed after it changes nothing.
    const kref::Fault f =
        kref::enter("vup_errmsg", {rec != nullptr ? rec->mnemonic : nullptr, std::int64_t{level}});
    if (f.fire && !f.after) return;
    if (rec == nullptr || rec->format == nullptr) return;
    va_list ap, copy;
    va_start(ap, level);
    va_copy(copy, ap);
    int n = std::vsnprintf(nullptr, 0, rec->format, copy);
    va_end(copy);
    std::string text(n > 0 ? static_cast<std::size_t>(n) : 0, '\0');
    if (n > 0) std::vsnprintf(text.data(), text.size() + 1, rec->format, ap);
    va_end(ap);
    std::string line = "%";
    line.append(rec->facility != nullptr ? rec->facility : "?");
    line.push_back('-');
    line.append(std::to_string(level));
    line.push_back('-');
    line.append(rec->mnemonic != nullptr ? rec->mnemonic : "?");
    line.append(": ");
    line.append(text);
    kref::log_line(line);
}

}  // extern "C"
