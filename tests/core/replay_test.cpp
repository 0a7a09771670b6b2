// What the fuzzer has found so far, as it is and changed at random, through the fuzzer's harness: that ends the process
// when something does not hold.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>

#include "tests/core/random.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

TEST(replay, of_what_was_found_and_of_random_changes_breaks_nothing) {
    const std::set<std::filesystem::path> corpus{std::filesystem::directory_iterator(CORPUS), {}};
    ASSERT_FALSE(corpus.empty());
    tndm::sim::dice dice(1);
    for (const auto& path : corpus) {
        std::fprintf(stderr, "%s\n", path.filename().c_str());
        std::ifstream file(path, std::ios::binary);
        std::string script{std::istreambuf_iterator<char>(file), {}};
        for (int change = 0; change <= CHANGES; ++change) {
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(script.data()), script.size());
            for (uint64_t i = dice.between(1, 4); i > 0 && !script.empty(); --i) {
                const size_t at = dice.below(script.size());
                dice.chance(0.8) ? void(script[at] = static_cast<char>(dice.roll()))
                                 : void(script.insert(at, script, at / 2, dice.below(40)));
            }
        }
    }
}

}  // namespace
