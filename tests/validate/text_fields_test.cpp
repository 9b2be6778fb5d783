#include "validate/text_fields.h"

#include "validate/invalid.h"
#include "validate/record_fields.h"

#include <gtest/gtest.h>

namespace maintenance {
namespace {

using Pieces = std::vector<std::string>;

Pieces linesOf(std::string_view text)
{
    Pieces lines;
    for (const std::string_view line : splitLines(text))
        lines.emplace_back(line);
    return lines;
}

TEST(Splitting, KeepsEveryEmptyPiece)
{
    EXPECT_EQ(split("a,,b,", ','), (Pieces{"a", "", "b", ""}));
    EXPECT_EQ(split("", ','), Pieces{""});
    EXPECT_EQ(split(",", ','), (Pieces{"", ""}));
    EXPECT_EQ(split(",,", ','), (Pieces{"", "", ""}));
    EXPECT_EQ(split("abc", ','), Pieces{"abc"});
    EXPECT_EQ(split("a\tb c\t", '\t'), (Pieces{"a", "b c", ""}));
}

TEST(Splitting, TreatsNulAndHighBytesLikeAnyOther)
{
    const std::string text("a\0b\xff,c", 6);
    EXPECT_EQ(split(text, ','), (Pieces{std::string("a\0b\xff", 4), "c"}));
    EXPECT_EQ(split(text, '\0'), (Pieces{"a", "b\xff,c"}));
    EXPECT_EQ(split("a\xff"
                    "b",
                    '\xff'),
              (Pieces{"a", "b"}));
}

TEST(Splitting, IsUndoneByJoining)
{
    const std::string text = ";;x;yy;;z;";
    std::string joined;
    for (const std::string& piece : split(text, ';'))
        joined += piece + ";";
    EXPECT_EQ(joined, text + ";");
}

TEST(Splitting, TakesAMebibyteOfSeparators)
{
    EXPECT_EQ(split(std::string(1048576, '\t'), '\t').size(), 1048577u);
    EXPECT_EQ(linesOf(std::string(1048576, '\n')).size(), 1048576u);
}

TEST(Lines, EndAtLineFeedsAndALastOneNeedsNone)
{
    EXPECT_EQ(linesOf(""), Pieces{});
    EXPECT_EQ(linesOf("\n"), Pieces{""});
    EXPECT_EQ(linesOf("a"), Pieces{"a"});
    EXPECT_EQ(linesOf("a\n"), Pieces{"a"});
    EXPECT_EQ(linesOf("a\nb"), (Pieces{"a", "b"}));
    EXPECT_EQ(linesOf("a\n\nb\n"), (Pieces{"a", "", "b"}));
    EXPECT_EQ(linesOf("a\n\n"), (Pieces{"a", ""}));
    EXPECT_EQ(linesOf("\n\n"), (Pieces{"", ""}));
}

TEST(Lines, AreNotTrimmed)
{
    EXPECT_EQ(linesOf(" a \r\n\tb\r"), (Pieces{" a \r", "\tb\r"}));
    EXPECT_EQ(linesOf(std::string("a\0\nb", 4)), (Pieces{std::string("a\0", 2), "b"}));
}

TEST(KeyAndValue, ArePartedAtTheFirstEqualsSign)
{
    const auto line = splitKeyValue("key=one=two");
    ASSERT_TRUE(line);
    EXPECT_EQ(line->key, "key");
    EXPECT_EQ(line->value, "one=two");

    const auto bare = splitKeyValue("=");
    ASSERT_TRUE(bare);
    EXPECT_EQ(bare->key, "");
    EXPECT_EQ(bare->value, "");

    EXPECT_FALSE(splitKeyValue("key"));
    EXPECT_FALSE(splitKeyValue(""));
}

std::string refusalOf(std::string_view text, std::size_t count)
{
    try {
        readRecordFields(text, count, "record is refused");
        return "accepted";
    } catch (const Invalid& error) {
        return error.what();
    }
}

TEST(Record, HasEachKeyOnceInAnyOrder)
{
    EXPECT_EQ(readRecordFields("b=2\na=1\n", 2, "no"), (RecordFields{{"a", "1"}, {"b", "2"}}));
    EXPECT_EQ(readRecordFields("a=1\nb=", 2, "no"), (RecordFields{{"a", "1"}, {"b", ""}}));
    EXPECT_EQ(readRecordFields("", 0, "no"), RecordFields{});
}

TEST(Record, IsRefusedWithTheCallersMessage)
{
    for (const char* text :
         {"a=1\na=1\n", "a=1\nb\n", "a=1\n", "a=1\nb=2\nc=3\n", "a=1\nb=2\n\n", "", "\na=1\nb=2\n"})
        EXPECT_EQ(refusalOf(text, 2), "record is refused") << text;
}

TEST(Record, LacksAFieldWithTheCallersMessage)
{
    const RecordFields fields = readRecordFields("a=1\n", 1, "no");
    EXPECT_EQ(takeField(fields, "a", "missing"), "1");
    try {
        takeField(fields, "b", "missing");
        FAIL() << "a field that is not there was taken";
    } catch (const Invalid& error) {
        EXPECT_STREQ(error.what(), "missing");
    }
}

} // namespace
} // namespace maintenance
