// Exactly the listed words of a record are byte-swapped; records of other types are unchanged.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <vector>

#include "quillsecurity.h"

namespace {

std::vector<unsigned char> pattern(size_t size) {
    std::vector<unsigned char> bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<unsigned char>(i * 7 + i / 256);
    return bytes;
}

TEST(ByteOrder, SwapsExactlyTheListedWords) {
    const struct {
        int32_t type;
        size_t size;
        std::set<size_t> words;
    } cases[] = {
        {161, 8, {0, 4}},     {165, 264, {128, 132}},
        {5157, 5720, {0, 4}}, {5159, 1108, {0, 4, 1032, 1036, 1104}},
        {5158, 5720, {}},     {171, 1, {}},
        {155, 8452, {}},      {170, 8321, {}},
        {283650, 2108, {}},   {0, 64, {}},
        {-1, 64, {}},
    };
    for (const auto& c : cases) {
        // At an odd address: a record need not be aligned.
        auto bytes = pattern(c.size + 1);
        const auto before = bytes;
        auto expected = bytes;
        for (const size_t word : c.words)
            std::reverse(expected.data() + 1 + word, expected.data() + 5 + word);
        security_conf_cmi_byteorder_convert(c.type, bytes.data() + 1);
        EXPECT_EQ(expected, bytes) << c.type;
        security_conf_cmi_byteorder_convert(c.type, bytes.data() + 1);
        EXPECT_EQ(before, bytes) << c.type << " twice";
    }
}

}  // namespace
