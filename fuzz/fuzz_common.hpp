// SPDX-License-Identifier: Apache-2.0
// Shared by the fuzz targets: the fuzzer's bytes as a parameter vector, and
// verifiers run with their messages released.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "kela_shared.h"

namespace fz {

// The input split at newlines into texts; a text "\x01" stands for a policy
// variable (a null entry, with no value slot).
struct Texts {
    std::vector<std::string> owned{""};
    std::vector<char *> ptrs;
    std::vector<void *> slots;
    std::vector<unsigned char> storage;

    Texts(const std::uint8_t *data, std::size_t size) {
        for (std::size_t i = 0; i < size; ++i)
            if (data[i] == '\n')
                owned.emplace_back();
            else
                owned.back().push_back(static_cast<char>(data[i]));
        storage.assign(owned.size() * 32, 0);
        for (std::size_t i = 0; i < owned.size(); ++i) {
            const bool variable = owned[i] == "\x01";
            ptrs.push_back(variable ? nullptr : owned[i].data());
            slots.push_back(variable ? nullptr : &storage[i * 32]);
        }
    }
    std::uint32_t count() const { return static_cast<std::uint32_t>(ptrs.size()); }
    const char *at(std::size_t i) const { return i < ptrs.size() && ptrs[i] ? ptrs[i] : ""; }
    void verify(rasf_verify_fn f, void *desc) {
        char *msg = nullptr;
        (void)f(count(), ptrs.data(), desc, &msg);
        std::free(msg);
    }
};

}  // namespace fz
