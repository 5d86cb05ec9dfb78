// SPDX-License-Identifier: Apache-2.0
// Shared by the fuzz targets: turning the fuzzer's bytes into texts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace fz {

// The input split at newlines into texts; a text "\x01" stands for a policy
// variable (a null entry).
struct Texts {
    std::vector<std::string> owned;
    std::vector<char *> ptrs;
    std::vector<void *> slots;
    std::vector<unsigned char> storage;

    Texts(const std::uint8_t *data, std::size_t size) {
        std::string cur;
        for (std::size_t i = 0; i < size; ++i) {
            if (data[i] == '\n') {
                owned.push_back(cur);
                cur.clear();
            } else {
                cur.push_back(static_cast<char>(data[i]));
            }
        }
        owned.push_back(cur);
        storage.assign(owned.size() * 32, 0);
        for (std::size_t i = 0; i < owned.size(); ++i) {
            const bool variable = owned[i] == "\x01";
            ptrs.push_back(variable ? nullptr : owned[i].data());
            slots.push_back(variable ? nullptr : &storage[i * 32]);
        }
    }
    std::uint32_t count() const { return static_cast<std::uint32_t>(ptrs.size()); }
    const char *at(std::size_t i) const { return i < ptrs.size() && ptrs[i] ? ptrs[i] : ""; }
};

}  // namespace fz
