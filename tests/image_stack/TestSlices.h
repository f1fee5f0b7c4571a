#pragma once

#include "image/QelRasterImage.h"
#include "image/QelRgbColorSpec.h"  // the inline base constructor needs it whole
#include "image_stack/QelImageStack.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <vector>

// A slice over a buffer of its own, with whatever pitch a test asks for, that counts
// its deletions: the stack deletes the slices it owns, and only those.
class TestSlice final : public QelRasterImage {
public:
    TestSlice(std::int32_t width, std::int32_t height, std::int32_t bytesPerPixel = 2, std::int32_t bytesPerLine = 0,
              int* deletions = nullptr)
        : m_deletions(deletions)
    {
        m_bytesPerPixel = bytesPerPixel;
        m_bytesPerLine = bytesPerLine > 0 ? bytesPerLine : width * bytesPerPixel;
        m_pixels.assign(static_cast<std::size_t>(m_bytesPerLine) * static_cast<std::size_t>(height), 0);
        m_xRange = m_scratchXRange = m_safetyXRange = QelIntRange(0, width - 1);
        m_yRange = m_scratchYRange = m_safetyYRange = QelIntRange(0, height - 1);
        m_origin = m_pixels.data();
    }
    ~TestSlice() override
    {
        if (m_deletions)
            ++*m_deletions;
    }

    bool Resize(std::int32_t, const QelIntRange&, const QelIntRange&, const QelIntRange&, const QelIntRange&,
                const QelIntRange&, const QelIntRange&) override { return false; }

private:
    std::vector<std::uint8_t> m_pixels;
    int* m_deletions;
};

// A stack and the slices the test made for it.
class StackTest : public ::testing::Test {
protected:
    TestSlice* Slice(std::int32_t width = 4, std::int32_t height = 3, std::int32_t bytesPerPixel = 2,
                     std::int32_t bytesPerLine = 0)
    {
        return m_slices.emplace_back(std::make_unique<TestSlice>(width, height, bytesPerPixel, bytesPerLine)).get();
    }
    // Origins of new slices at `zValues`, in the order given.
    std::vector<const std::uint8_t*> Fill(std::initializer_list<float> zValues)
    {
        std::vector<const std::uint8_t*> origins;
        for (float z : zValues) {
            EXPECT_TRUE(m_stack->InsertImage(Slice(), z, false, false)) << z;
            origins.push_back(m_slices.back()->OriginAddress());
        }
        return origins;
    }

    std::vector<std::unique_ptr<TestSlice>> m_slices;  // declared first: outlives the stack
    std::unique_ptr<QelImageStack> m_stack = QelImageStack::New();
};
