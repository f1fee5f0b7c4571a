#include "ax/system/SerializationInfo.h"

#include "ax/system/Exception.h"

#include "support/MessageOf.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace {

using Ax::System::BitArray;
using Ax::System::SerializationException;
using Ax::System::SerializationInfo;

std::string Encoded(const SerializationInfo& info)
{
    std::ostringstream out;
    info.Write(out);
    return out.str();
}

SerializationInfo Decoded(const std::string& bytes)
{
    std::istringstream in(bytes);
    return SerializationInfo::Read(in);
}

SerializationInfo Sample()
{
    SerializationInfo info("Ax.Rendering.BitVolume");
    info.AddValue("Width", -3);
    BitArray bits(11);
    bits.Set(0, true);
    bits.Set(10, true);
    info.AddValue("Data", bits);
    return info;
}

TEST(SerializationInfoTest, TheEncodingIsTheDocumentedOneAndReadsBack)
{
    const std::string bytes = Encoded(Sample());
    const std::string expected = std::string("AXKV\1\0\0\0\x16\0", 10) + "Ax.Rendering.BitVolume" +
                                 std::string("\2\0\0\0\5\0", 6) + "Width" + std::string("\1\xFD\xFF\xFF\xFF\4\0", 7) +
                                 "Data" + std::string("\2\x0B\0\0\0\0\0\0\0\x01\x04", 11);
    EXPECT_EQ(bytes, expected);

    const SerializationInfo back = Decoded(bytes);
    EXPECT_EQ(back.FullTypeName(), "Ax.Rendering.BitVolume");
    EXPECT_EQ(back.GetInt32("Width"), -3);
    EXPECT_EQ(back.GetBitArray("Data"), Sample().GetBitArray("Data"));
    EXPECT_EQ(MessageOf<SerializationException>([&] { (void)back.GetInt32("Height"); }),
              "Member 'Height' was not found.");
    EXPECT_EQ(MessageOf<SerializationException>([&] { (void)back.GetBitArray("Width"); }),
              "Member 'Width' is not a bit array.");
    SerializationInfo twice;
    twice.AddValue("Width", 1);
    EXPECT_EQ(MessageOf<SerializationException>([&] { twice.AddValue("Width", 2); }),
              "Cannot add the same member twice to a SerializationInfo object.");
}

// Every cut, every foreign byte in the structural fields and every lie in a count
// ends in a SerializationException, never in a crash or a huge allocation.
TEST(SerializationInfoTest, DamagedEncodingsAreRefusedWithTheirField)
{
    const std::string good = Encoded(Sample());
    for (std::size_t cut = 0; cut < good.size(); ++cut)
        EXPECT_THROW((void)Decoded(good.substr(0, cut)), SerializationException) << cut;

    const auto messageWith = [&good](std::size_t at, const std::string& bytes) {
        std::string bad = good;
        bad.replace(at, bytes.size(), bytes);
        return MessageOf<SerializationException>([&] { (void)Decoded(bad); });
    };
    EXPECT_EQ(messageWith(0, "AXKW"), "This is not a persisted form: it doesn't start with \"AXKV\".");
    EXPECT_EQ(messageWith(4, "\2"), "The persisted form has version 2; this library reads version 1.");
    EXPECT_EQ(messageWith(43, "\3"), "Member 'Width' has the unknown kind 3.");
    EXPECT_EQ(messageWith(55, std::string("\xFF\xFF\xFF\xFF\xFF\xFF\xFF\x0F", 8)),
              "The persisted form ends inside a bit array.");
    EXPECT_EQ(messageWith(55, std::string("\x0A", 1)), "Member 'Data' has bits set beyond its length.");
    EXPECT_EQ(messageWith(32, std::string("\x03", 1)), "The persisted form ends inside a key.");
    EXPECT_EQ(MessageOf<SerializationException>([&] { (void)Decoded(good + "x"); }),
              "The persisted form goes on after its last entry.");
    const std::string widthEntry = good.substr(36, 12);
    const std::string twice = good.substr(0, 32) + std::string("\2\0\0\0", 4) + widthEntry + widthEntry;
    EXPECT_EQ(MessageOf<SerializationException>([&] { (void)Decoded(twice); }),
              "Cannot add the same member twice to a SerializationInfo object.");
}

}  // namespace
