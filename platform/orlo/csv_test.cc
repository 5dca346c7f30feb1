// CSV files: records, fields and what is refused.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <orlo_sdk.h>

#include <string>
#include <vector>

#include "platform/orlo/testing/text.h"

namespace orlo::test {
namespace {

using ::testing::ElementsAre;

struct RecordDestroy {
  void operator()(CsvRecord* record) const { CsvRecordDestroy(record); }
};
using Record = std::unique_ptr<CsvRecord, RecordDestroy>;

// The fields of a record as "[a][b]", "malformed" where none can be read.
std::string fields(const CsvRecord* record) {
  std::string result;
  const char* text = nullptr;
  for (std::size_t column = 0; OrloCsvReadStr(record, column, &text); ++column) {
    result += std::string("[") + text + "]";
  }
  return result.empty() ? "malformed" : result;
}

std::vector<std::string> records(std::FILE* stream) {
  std::vector<std::string> result;
  for (Record record(CsvRecordRead(stream)); record; record.reset(CsvRecordRead(stream))) {
    result.push_back(fields(record.get()));
  }
  return result;
}

std::vector<std::string> records(std::string_view content) {
  return records(fileWith(content).get());
}

TEST(Csv, SeparatesFieldsByCommas) {
  EXPECT_THAT(records("7,name\n"), ElementsAre("[7][name]"));
  EXPECT_THAT(records("a,,c,\n"), ElementsAre("[a][][c][]"));
  EXPECT_THAT(records(",\n"), ElementsAre("[][]"));
  EXPECT_THAT(records(" a , b \n"), ElementsAre("[ a ][ b ]"));
  EXPECT_THAT(records("caf\xC3\xA9,\xFF\n"), ElementsAre("[caf\xC3\xA9][\xFF]"));
}

TEST(Csv, EndsRecordsWithLfOrCrLfOrTheFile) {
  EXPECT_THAT(records("1,a\n2,b\n"), ElementsAre("[1][a]", "[2][b]"));
  EXPECT_THAT(records("1,a\r\n2,b\r\n"), ElementsAre("[1][a]", "[2][b]"));
  EXPECT_THAT(records("1,a\n2,b"), ElementsAre("[1][a]", "[2][b]"));
  EXPECT_THAT(records("1,a\n2,b\r"), ElementsAre("[1][a]", "[2][b]"));
  EXPECT_THAT(records("1,"), ElementsAre("[1][]"));
  EXPECT_THAT(records("1,a\rb\r\r\n2"), ElementsAre("[1][a\rb\r]", "[2]"));
}

TEST(Csv, SkipsBlankLines) {
  EXPECT_THAT(records(""), ElementsAre());
  EXPECT_THAT(records("\n"), ElementsAre());
  EXPECT_THAT(records("\n1\n\r\n \t\n\n2\n\n"), ElementsAre("[1]", "[2]"));
  EXPECT_THAT(records("\"\"\n,\n"), ElementsAre("[]", "[][]"));
}

TEST(Csv, ReadsQuotedFields) {
  EXPECT_THAT(records("\"a,b\",c\n"), ElementsAre("[a,b][c]"));
  EXPECT_THAT(records("\"say \"\"hello\"\"\"\n"), ElementsAre("[say \"hello\"]"));
  EXPECT_THAT(records("\"\",\"\"\"\"\n"), ElementsAre("[][\"]"));
  EXPECT_THAT(records("1,\"two\nlines\"\r\n2,\"cr\r\nlf\"\n3"),
              ElementsAre("[1][two\nlines]", "[2][cr\r\nlf]", "[3]"));
  EXPECT_THAT(records("\"at the end\""), ElementsAre("[at the end]"));
  EXPECT_THAT(records("\"at the end\"\r"), ElementsAre("[at the end]"));
}

TEST(Csv, RefusesAMalformedRecordAndContinuesAfterItsLine) {
  EXPECT_THAT(records("1,a\"b\n2,c\n"), ElementsAre("malformed", "[2][c]"));
  EXPECT_THAT(records("1,a\"\n2,c\n"), ElementsAre("malformed", "[2][c]"));
  EXPECT_THAT(records("1, \"a\"\n2,c\n"), ElementsAre("malformed", "[2][c]"));
  EXPECT_THAT(records("1,\"a\"b\n2,c\n"), ElementsAre("malformed", "[2][c]"));
  EXPECT_THAT(records("1,\"a\" ,b\n2,c\n"), ElementsAre("malformed", "[2][c]"));
  EXPECT_THAT(records("1,\"a\"b\"c\n2,c\n"), ElementsAre("malformed", "[2][c]"));
  EXPECT_THAT(records("1,\"a\"\rb\n2,c\n"), ElementsAre("malformed", "[2][c]"));
  EXPECT_THAT(records("1,\"unclosed\n2,c\n"), ElementsAre("malformed"));
  EXPECT_THAT(records("\""), ElementsAre("malformed"));
  EXPECT_THAT(records(std::string_view("1,a\0b\n2,c\n", 10)), ElementsAre("malformed", "[2][c]"));
  EXPECT_THAT(records(std::string_view("\0", 1)), ElementsAre("malformed"));
  EXPECT_THAT(records(std::string_view("\"\0\"\n2", 5)), ElementsAre("malformed", "[2]"));
}

TEST(Csv, FailsEveryReadFromAMalformedRecord) {
  const Stream stream = fileWith("1,a\"b\n");
  const Record record(CsvRecordRead(stream.get()));
  ASSERT_TRUE(record);
  uint32_t number = 99;
  const char* text = "kept";
  EXPECT_FALSE(OrloCsvReadUInt(record.get(), 0, &number));
  EXPECT_FALSE(OrloCsvReadStr(record.get(), 0, &text));
  EXPECT_EQ(number, 99u);
  EXPECT_STREQ(text, "kept");
}

TEST(Csv, SkipsAByteOrderMark) {
  EXPECT_THAT(records("\xEF\xBB\xBF"
                      "1,a\n"),
              ElementsAre("[1][a]"));
  EXPECT_THAT(records("\xEF\xBB\xBF\"1\",a\n\xEF\xBB\xBF"
                      "2\n"),
              ElementsAre("[1][a]", "[2]"));
  EXPECT_THAT(records("\xEF\xBB\xBF"), ElementsAre());
  EXPECT_THAT(records("\xEF\xBB\xBF\n1"), ElementsAre("[1]"));
}

TEST(Csv, KeepsAnIncompleteByteOrderMark) {
  EXPECT_THAT(records("\xEF\n"), ElementsAre("[\xEF]"));
  EXPECT_THAT(records("\xEF"), ElementsAre("[\xEF]"));
  EXPECT_THAT(records("\xEF\xBB"), ElementsAre("[\xEF\xBB]"));
  EXPECT_THAT(records("\xEF\xBB\n1"), ElementsAre("[\xEF\xBB]", "[1]"));
  EXPECT_THAT(records("\xEF\xBB,1\n"), ElementsAre("[\xEF\xBB][1]"));
  EXPECT_THAT(records("\xEF,\xBB\r\n1"), ElementsAre("[\xEF][\xBB]", "[1]"));
  EXPECT_THAT(records("\xEF\r\n1"), ElementsAre("[\xEF]", "[1]"));
  EXPECT_THAT(records("\xEF\xBB\r\n1"), ElementsAre("[\xEF\xBB]", "[1]"));
}

struct Number {
  std::string_view field;
  uint32_t value;
};

TEST(Csv, ReadsUnsignedNumbers) {
  constexpr Number kNumbers[] = {
      {"0", 0},       {"7", 7},         {"007", 7},
      {" 7 ", 7},     {"\t7", 7},       {"4294967295", 4294967295u},
      {"\"42\"", 42}, {"\"\n42\"", 42},
  };
  for (const Number& number : kNumbers) {
    const Stream stream = fileWith("x," + std::string(number.field) + "\n");
    const Record record(CsvRecordRead(stream.get()));
    uint32_t value = 99;
    EXPECT_TRUE(OrloCsvReadUInt(record.get(), 1, &value)) << number.field;
    EXPECT_EQ(value, number.value) << number.field;
  }
}

TEST(Csv, RefusesOtherNumbersAndLeavesTheResult) {
  for (const std::string field : {"", " ", "-1", "+1", "0x10", "1x", "x", "1 2", "1.0",
                                  "4294967296", "99999999999999999999", "id"}) {
    const Stream stream = fileWith("x," + field + "\n");
    const Record record(CsvRecordRead(stream.get()));
    uint32_t value = 99;
    EXPECT_FALSE(OrloCsvReadUInt(record.get(), 1, &value)) << field;
    EXPECT_EQ(value, 99u) << field;
  }
}

TEST(Csv, HasNoColumnAfterTheLast) {
  const Stream stream = fileWith("1,a\n");
  const Record record(CsvRecordRead(stream.get()));
  const char* text = "kept";
  uint32_t number = 99;
  EXPECT_FALSE(OrloCsvReadStr(record.get(), 2, &text));
  EXPECT_FALSE(OrloCsvReadUInt(record.get(), 2, &number));
  EXPECT_FALSE(OrloCsvReadUInt(record.get(), SIZE_MAX, &number));
  EXPECT_STREQ(text, "kept");
  EXPECT_EQ(number, 99u);
}

TEST(Csv, EndsWhenTheStreamFails) {
  const Stream directory = directoryStream();
  ASSERT_TRUE(directory);
  EXPECT_EQ(CsvRecordRead(directory.get()), nullptr);
}

TEST(Csv, ToleratesNullArguments) {
  const Stream stream = fileWith("1\n");
  const Record record(CsvRecordRead(stream.get()));
  const char* text = nullptr;
  uint32_t number = 0;
  EXPECT_EQ(CsvRecordRead(nullptr), nullptr);
  EXPECT_FALSE(OrloCsvReadStr(nullptr, 0, &text));
  EXPECT_FALSE(OrloCsvReadUInt(nullptr, 0, &number));
  EXPECT_FALSE(OrloCsvReadStr(record.get(), 0, nullptr));
  EXPECT_FALSE(OrloCsvReadUInt(record.get(), 0, nullptr));
  CsvRecordDestroy(nullptr);
}

TEST(Csv, LimitsARecordTo16MiB) {
  const std::string longest((std::size_t{16} << 20) - 2, 'v');
  EXPECT_THAT(records("1," + longest + "\n2"), ElementsAre("[1][" + longest + "]", "[2]"));
  EXPECT_THAT(records("1," + longest + "v\n2"), ElementsAre("malformed", "[2]"));
  EXPECT_THAT(records(std::string((std::size_t{16} << 20) + 1, ',') + "\n2"),
              ElementsAre("malformed", "[2]"));
}

TEST(Csv, SkipsARecordOf128MiBInBoundedMemory) {
  const Stream stream(std::tmpfile());
  ASSERT_TRUE(stream);
  const std::string block(std::size_t{1} << 20, ',');
  for (int i = 0; i < 128; ++i) {
    ASSERT_EQ(std::fwrite(block.data(), 1, block.size(), stream.get()), block.size());
  }
  ASSERT_GE(std::fputs("\n2,b\n", stream.get()), 0);
  std::rewind(stream.get());
  const PeakMemory memory;
  EXPECT_THAT(records(stream.get()), ElementsAre("malformed", "[2][b]"));
  EXPECT_LT(memory.growth(), 160 * 1024);
}

TEST(Csv, ReadsManyRecords) {
  std::string content;
  for (int i = 0; i < 100'000; ++i) {
    content += std::to_string(i) + ",\"Issue " + std::to_string(i) + "\",x,y\r\n";
  }
  const std::vector<std::string> all = records(content);
  ASSERT_EQ(all.size(), 100'000u);
  EXPECT_EQ(all.back(), "[99999][Issue 99999][x][y]");
}

}  // namespace
}  // namespace orlo::test
