// A directory for the life of the fuzzer: in memory, where there is such a place, since each input is written there and
// kept as on a disk.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

#include "input.hpp"

namespace fuzz
{

struct directory {
    std::string path;

    directory()
    {
        for (std::string pattern : {"/dev/shm/kap-fuzz.XXXXXX", "/tmp/kap-fuzz.XXXXXX"}) {
            if (mkdtemp(pattern.data()) != nullptr) {
                path = pattern;
                return;
            }
        }
        require(false, "a directory");
    }
    ~directory() { std::filesystem::remove_all(path); }
    directory(const directory &) = delete;
    directory &operator=(const directory &) = delete;
};

} // namespace fuzz
