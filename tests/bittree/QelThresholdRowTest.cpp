#include "bittree/imp/QelThresholdRow.h"
#include "bittree/imp/QelBlockedBitTreeThresholderWkr.h"

#include "bittree/ThresholdTestSupport.h"
#include "support/BaseTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <random>
#include <vector>

namespace {

class QelThresholdRowTest : public ::testing::TestWithParam<QelIsa> {};

// Every level against the rule and so against each other: random rows of both
// signednesses, with and without padding, one plane and blends, every width up to
// a few words and some odd long ones.
TEST_P(QelThresholdRowTest, GivesTheRuleBitForBitOnRandomRows)
{
    const QelThresholdRowFn body = QelThresholdRowFor(GetParam());
    std::mt19937 random(TestSeed());
    std::vector<std::int32_t> widths;
    for (std::int32_t w = 1; w <= 100; ++w)
        widths.push_back(w);
    widths.insert(widths.end(), {255, 256, 257, 517, 1023});
    int failures = 0;
    for (std::int32_t width : widths) {
        for (int variant = 0; variant < 8; ++variant) {
            const bool isSigned = variant & 1;
            const bool hasPadding = variant & 2;
            const bool twoPlanes = variant & 4;
            // Extremes of the sample range and of the weight show up often.
            const auto sample = [&random]() -> std::uint16_t {
                switch (random() % 8) {
                case 0: return 0x8000;
                case 1: return 0x7FFF;
                case 2: return 0xFFFF;
                case 3: return 0;
                default: return static_cast<std::uint16_t>(random());
                }
            };
            const std::uint16_t padding = sample();
            std::vector<std::uint16_t> first(static_cast<std::size_t>(width)), second(first.size());
            for (std::size_t j = 0; j < first.size(); ++j) {
                first[j] = random() % 5 == 0 ? padding : sample();
                second[j] = random() % 5 == 0 ? padding : sample();
            }
            const std::int32_t weight = std::array<std::int32_t, 4>{0, 16383, 8192, 0}[random() % 4] +
                                        (random() % 3 == 0 ? static_cast<std::int32_t>(random() % 16384) : 0);
            const std::int32_t threshold =
                isSigned ? static_cast<std::int16_t>(sample()) : static_cast<std::int32_t>(sample());

            // Exactly the row's samples, so that a read past the end shows under the
            // address sanitizer.
            std::vector<std::uint8_t> firstBytes(first.size() * 2), secondBytes(second.size() * 2);
            std::memcpy(firstBytes.data(), first.data(), firstBytes.size());
            std::memcpy(secondBytes.data(), second.data(), secondBytes.size());
            QelThresholdRow row;
            row.First = firstBytes.data();
            row.Second = secondBytes.data();
            row.Pixels = width;
            row.Weight = std::min(weight, 16383);
            row.TwoPlanes = twoPlanes;
            row.Bias = isSigned ? 0 : 0x8000;
            ASSERT_TRUE(qel::threshold::BiasedThreshold(threshold, isSigned, row.Threshold));
            row.HasPadding = hasPadding;
            row.Padding = padding;

            const std::size_t wordCount = static_cast<std::size_t>(width + 31) / 32;
            std::vector<std::uint32_t> words(wordCount + 1, 0xA5A5A5A5u);
            body(row, words.data());
            EXPECT_EQ(words.back(), 0xA5A5A5A5u) << "wrote past the row's words, width " << width;
            for (std::int32_t j = 0; j < 32 * static_cast<std::int32_t>(wordCount); ++j) {
                const bool expected = j < width && ExpectedBit(first[j], second[j], twoPlanes, row.Weight, isSigned,
                                                               hasPadding, padding, threshold);
                const bool actual = words[static_cast<std::size_t>(j / 32)] >> (j % 32) & 1u;
                if (actual != expected && failures++ < 10)
                    ADD_FAILURE() << "width " << width << " variant " << variant << " pixel " << j << ": first "
                                  << first[std::min<std::size_t>(j, first.size() - 1)] << " second "
                                  << second[std::min<std::size_t>(j, second.size() - 1)] << " weight "
                                  << row.Weight << " threshold " << threshold;
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(AllIsas, QelThresholdRowTest, testing::ValuesIn(QelSupportedIsas()), IsaName);

// The merge of a row packed at an offset: every bit lands at offset + its index,
// nothing spills past the row, and bits already there stay.
TEST(QelThresholdMerge, PlacesEveryBitAtItsOffsetWithinTheRow)
{
    std::mt19937 random(TestSeed());
    for (std::int32_t rowWords = 1; rowWords <= 4; ++rowWords) {
        for (std::int32_t offset = 0; offset < 32 * rowWords; ++offset) {
            const std::int32_t count = 1 + static_cast<std::int32_t>(random() % 4);
            std::vector<std::uint32_t> source(static_cast<std::size_t>(count));
            for (std::uint32_t& word : source)
                word = static_cast<std::uint32_t>(random());
            std::vector<std::uint32_t> row(static_cast<std::size_t>(rowWords));
            for (std::uint32_t& word : row)
                word = static_cast<std::uint32_t>(random()) & 0x01010101u;
            std::vector<std::uint32_t> expected = row;
            for (std::int32_t bit = 0; bit < 32 * count; ++bit) {
                const std::int32_t to = offset + bit;
                if ((source[static_cast<std::size_t>(bit / 32)] >> (bit % 32) & 1u) && to < 32 * rowWords)
                    expected[static_cast<std::size_t>(to / 32)] |= 1u << (to % 32);
            }
            qel::threshold::MergeShifted(source.data(), count, offset, row.data(), rowWords);
            EXPECT_EQ(row, expected) << "offset " << offset << " count " << count << " row words " << rowWords;
        }
    }
}

}  // namespace
