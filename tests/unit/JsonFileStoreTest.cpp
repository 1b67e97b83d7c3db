// The JSON file store on its own (lock contention between processes is in
// the integration tests).
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "ApplianceRootEnv.h"
#include "merocore.h"
#include "webapi/WebAPIUtil.h"

namespace {

using MERO::WebAPIUtil::ReadJsonFile;
using MERO::WebAPIUtil::SaveJsonFile;

class JsonFileStoreTest : public webapi_test::ApplianceRootTest {
 protected:
  std::string PathOf(const char* name) const { return (root() / name).string(); }
  std::string Contents(const char* name) const { return webapi_test::ReadFileText(root() / name); }
};

TEST_F(JsonFileStoreTest, ReadReportsEveryFailureAsFalse) {
  Json::Value value("untouched");
  EXPECT_FALSE(ReadJsonFile(value, nullptr));
  EXPECT_FALSE(ReadJsonFile(value, PathOf("missing.json").c_str()));
  EXPECT_EQ(value, Json::Value("untouched"));
  webapi_test::WriteRootFile("bad.json", "{\"a\": ");
  EXPECT_FALSE(ReadJsonFile(value, PathOf("bad.json").c_str()));
  webapi_test::WriteRootFile("deep.json", std::string(5000, '['));
  EXPECT_FALSE(ReadJsonFile(value, PathOf("deep.json").c_str()));
  ASSERT_EQ(mkfifo(PathOf("fifo").c_str(), 0600), 0);  // no writer: must not wait
  EXPECT_FALSE(ReadJsonFile(value, PathOf("fifo").c_str()));
}

// Reads go straight into a buffer sized from the file: sizes around and far
// past a memory page must come back whole.
TEST_F(JsonFileStoreTest, ReadReturnsWholeFilesOfAnySize) {
  for (const size_t size : {size_t{4094}, size_t{4095}, size_t{4096}, size_t{4097}, size_t{300000}}) {
    const std::string text(size - 8, 'x');  // {"a":"…"} adds 8 bytes
    webapi_test::WriteRootFile("sized.json", "{\"a\":\"" + text + "\"}");
    ASSERT_EQ(Contents("sized.json").size(), size);
    Json::Value value;
    ASSERT_TRUE(ReadJsonFile(value, PathOf("sized.json").c_str())) << size;
    EXPECT_EQ(value["a"].asString(), text) << size;
  }
}

TEST_F(JsonFileStoreTest, ReadDropsCommentsAndIgnoresWhatFollowsTheDocument) {
  Json::Value want;
  want["a"] = 1;
  for (const char* text : {"// header\n{\"a\": /* inline */ 1}\n", "{\"a\":1}\n}\n", "{\"a\":1} x"}) {
    SCOPED_TRACE(text);
    webapi_test::WriteRootFile("c.json", text);
    Json::Value value;
    ASSERT_TRUE(ReadJsonFile(value, PathOf("c.json").c_str()));
    EXPECT_EQ(value, want);
    EXPECT_FALSE(value["a"].hasComment(Json::commentBefore));
  }
}

TEST_F(JsonFileStoreTest, SaveWritesOneCompactLineAndReadsBackEqual) {
  Json::Value value;
  value["name"] = "caf\xc3\xa9";
  value["list"].append(1);
  value["list"].append(true);
  ASSERT_TRUE(SaveJsonFile(value, PathOf("new.json").c_str()));  // created
  EXPECT_EQ(Contents("new.json"), "{\"list\":[1,true],\"name\":\"caf\\u00e9\"}\n");
  Json::Value back;
  ASSERT_TRUE(ReadJsonFile(back, PathOf("new.json").c_str()));
  EXPECT_EQ(back, value);

  Json::Value shorter(Json::arrayValue);
  ASSERT_TRUE(SaveJsonFile(shorter, PathOf("new.json").c_str()));  // truncates the old text
  EXPECT_EQ(Contents("new.json"), "[]\n");
  EXPECT_FALSE(SaveJsonFile(shorter, PathOf("no/such/dir.json").c_str()));
}

TEST_F(JsonFileStoreTest, SettingsFilesReadKeyValueLines) {
  webapi_test::WriteRootFile("etc/s.conf", "# c\n a = \"one\" \nb=two\n" + std::string(5000, 'x') +
                                               "=long\nc=\"\"\nb=\"second\"\ne=" +
                                               std::string(4093, 'e') + "\n");  // the longest line
  const std::string file = PathOf("etc/s.conf");
  struct Case {
    const char* key;
    int result;
    const char* value;
  };
  const Case cases[] = {{"a", 1, "one"}, {"b", 1, "two"}, {"c", 1, ""},
                        {"d", 0, ""},    {"#", 0, ""},     {"e", 1, "eeeeeeeeeeeeeee"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.key);
    char buf[16] = "garbage";
    EXPECT_EQ(MLIBCFileGetKeyValue(file.c_str(), c.key, buf, sizeof buf, 0), c.result);
    EXPECT_STREQ(buf, c.value);
  }
  char small[3];
  EXPECT_EQ(MLIBCFileGetKeyValue(file.c_str(), "a", small, sizeof small, 0), 1);
  EXPECT_STREQ(small, "on");
  EXPECT_EQ(MLIBCFileGetKeyValue(PathOf("etc/none").c_str(), "a", small, sizeof small, 0), -1);
  EXPECT_EQ(MLIBCErrGet(), MERO_ERR_NOT_FOUND);
  // A directory opens but cannot be read: no answer, not "no such key".
  EXPECT_EQ(MLIBCFileGetKeyValue(PathOf("etc").c_str(), "a", small, sizeof small, 0), -1);
  EXPECT_EQ(MLIBCErrGet(), MERO_ERR_IO);

  // Whole values only: a prefix, a blank more or another file is no match.
  const std::string longest(4093, 'e');
  const struct {
    std::string file;
    const char* key;
    const char* value;
    int result;
  } checks[] = {{file, "a", "one", 1},           {file, "a", "on", 0},
                {file, "a", "one ", 0},          {file, "c", "", 1},
                {file, "d", "", 0},              {file, "e", longest.c_str(), 1},
                {PathOf("etc/none"), "a", "one", 0}};
  for (const auto& c : checks) {
    SCOPED_TRACE(std::string(c.key) + "=" + std::string(c.value).substr(0, 8));
    EXPECT_EQ(MLIBCFileCheckKeyValue(c.file.c_str(), c.key, c.value, 0), c.result);
  }
}

}  // namespace
