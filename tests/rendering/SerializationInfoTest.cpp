#include "ax/system/SerializationInfo.h"

#include "ax/system/Exception.h"

#include "support/MessageOf.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

using Ax::System::SerializationException;
using Ax::System::SerializationInfo;

SerializationInfo Decoded(const std::string& bytes)
{
    std::istringstream in(bytes);
    return SerializationInfo::Read(in);
}

// A type name, an int and a bit array of 11 with its first and last bits set.
const std::string kEncoded = std::string("AXKV\1\0\0\0\x16\0", 10) + "Ax.Rendering.BitVolume" +
                             std::string("\2\0\0\0\5\0", 6) + "Width" + std::string("\1\xFD\xFF\xFF\xFF\4\0", 7) + "Data" +
                             std::string("\2\x0B\0\0\0\0\0\0\0\x01\x04", 11);

TEST(SerializationInfoTest, TheEncodingIsTheDocumentedOneAndReadsBack)
{
    SerializationInfo info("Ax.Rendering.BitVolume");
    info.AddValue("Width", -3);
    Ax::System::BitArray bits(11);
    bits.Set(0, true);
    bits.Set(10, true);
    info.AddValue("Data", bits);
    std::ostringstream out;
    info.Write(out);
    EXPECT_EQ(out.str(), kEncoded);

    const SerializationInfo back = Decoded(kEncoded);
    EXPECT_EQ(back.FullTypeName(), "Ax.Rendering.BitVolume");
    EXPECT_EQ(back.GetInt32("Width"), -3);
    EXPECT_EQ(back.GetBitArray("Data"), bits);
    EXPECT_EQ(MessageOf<SerializationException>([&] { (void)back.GetInt32("Height"); }),
              "Member 'Height' was not found.");
    EXPECT_EQ(MessageOf<SerializationException>([&] { (void)back.GetBitArray("Width"); }),
              "Member 'Width' is not a bit array.");
}

// Every cut, every foreign byte in the structural fields and every lie in a count
// ends in a SerializationException, never in a crash or a huge allocation.
TEST(SerializationInfoTest, DamagedEncodingsAreRefusedWithTheirField)
{
    for (std::size_t cut = 0; cut < kEncoded.size(); ++cut)
        EXPECT_THROW((void)Decoded(kEncoded.substr(0, cut)), SerializationException) << cut;

    const auto with = [](std::size_t at, const std::string& bytes) {
        return std::string(kEncoded).replace(at, bytes.size(), bytes);
    };
    const std::string widthEntry = kEncoded.substr(36, 12);
    const std::pair<std::string, const char*> cases[] = {
        {with(0, "AXKW"), "This is not a persisted form: it doesn't start with \"AXKV\"."},
        {with(4, "\2"), "The persisted form has version 2; this library reads version 1."},
        {with(43, "\3"), "Member 'Width' has the unknown kind 3."},
        {with(55, std::string("\xFF\xFF\xFF\xFF\xFF\xFF\xFF\x0F", 8)), "The persisted form ends inside a bit array."},
        {with(55, "\x0A"), "Member 'Data' has bits set beyond its length."},
        {with(32, "\x03"), "The persisted form ends inside a key."},
        {kEncoded + "x", "The persisted form goes on after its last entry."},
        {kEncoded.substr(0, 32) + std::string("\2\0\0\0", 4) + widthEntry + widthEntry,
         "Cannot add the same member twice to a SerializationInfo object."},
    };
    for (const auto& [bytes, message] : cases)
        EXPECT_EQ(MessageOf<SerializationException>([&] { (void)Decoded(bytes); }), message);
}

}  // namespace
