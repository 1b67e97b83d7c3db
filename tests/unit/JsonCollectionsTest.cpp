#include <gtest/gtest.h>
#include <syslog.h>

#include <algorithm>
#include <string>
#include <utility>

#include "mero_owners.h"
#include "merocore.h"
#include "webapi/JsonValue.h"
#include "webapi/WebAPIUtil.h"

namespace {

namespace util = MERO::WebAPIUtil;

Json::Value J(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(MERO::JsonValue::fromString(value, text)) << text;
  return value;
}

TEST(JsonCollectionsTest, JsonArrayHasComparesAsTheNeedleTypeSays) {
  struct Case { const char* array; Json::Value needle; bool strict; bool want; };
  const Case cases[] = {
      {R"([1,"Admin"])", "ADMIN", true, true}, {R"([1,true,null])", "1", false, false},
      {"[true]", 1, false, true},              {"[1.5]", 1, true, false},
      {"[1.5]", 1, false, true},               {"[null]", 0, false, true},
      {"[-1]", Json::Value(4294967295u), false, false},  {"[1e10]", 1, false, false},
      {"[0.5]", 0.25, false, false},           {"[0]", false, false, true},
      {"[null]", Json::Value(), false, false}, {R"({"a":"x"})", "x", false, false},
      {"[1099511627776]", Json::Value(Json::Int64(1) << 40), false, false},  // asInt() would throw
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.array) + " has " + c.needle.toStyledString());
    Json::Value array = J(c.array);
    EXPECT_EQ(util::JsonArrayHas(array, c.needle, c.strict), c.want);
  }
  EXPECT_TRUE(util::JsonArrayHasString(J(R"([1,"admin"])"), "admin"));
  EXPECT_FALSE(util::JsonArrayHasString(J(R"([1,"Admin"])"), "admin"));  // exact, unlike JsonArrayHas
}

TEST(JsonCollectionsTest, IsEmptyAndParseJsonWhichLogsOnceForNonJson) {
  for (const char* json : {R"("")", "null", "[]", "{}"}) EXPECT_TRUE(util::IsEmpty(J(json))) << json;
  for (const char* json : {"0", "false", R"(" ")", "[0]"}) EXPECT_FALSE(util::IsEmpty(J(json))) << json;

  openlog("JsonCollectionsTest", LOG_PERROR, LOG_USER);  // a copy of each log line on stderr
  for (const std::string text : {"", "[1,2", R"({"a":[1]})"}) {
    SCOPED_TRACE(text);
    const bool json = !text.empty() && text.back() == '}';
    testing::internal::CaptureStderr();
    const Json::Value got = util::ParseJson(text);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(got, json ? J(text) : Json::Value());
    const std::string line = " " + text + " is not JSON format\n";  // the only line, last on stderr
    const bool logged = log.find("WebAPIUtil.cpp:") != std::string::npos && log.size() >= line.size() &&
                        log.compare(log.size() - line.size(), line.size(), line) == 0 &&
                        std::count(log.begin(), log.end(), '\n') == 1;
    EXPECT_EQ(logged, !json) << log;
  }
  openlog(nullptr, 0, LOG_USER);  // glibc's closelog would keep LOG_PERROR
  closelog();
}

TEST(JsonCollectionsTest, SzListToArrayKeepsItemOrder) {
  EXPECT_EQ(util::SzListToArray(nullptr), Json::Value(Json::arrayValue));
  MLIBSZLIST* list = MLIBCSzListAlloc(1);
  for (const char* item : {"b", "a", ""}) EXPECT_GE(MLIBCSzListAdd(&list, item), 0);
  mero::UniqueSzList owner(list);
  EXPECT_EQ(util::SzListToArray(list), J(R"(["b","a",""])"));
}

TEST(JsonCollectionsTest, JsonObjToSzHashStoresScalarTextsThroughTheMovedPointer) {
  MLIBSZHASH* hash = MLIBCSzHashAlloc(1);  // must grow, replacing the record
  Json::Value object = J(R"({"s":"x","n":5,"r":1.5,"b":true,"z":null,"arr":[1],"obj":{},"neg":-2})");
  MLIBSZHASH* none = nullptr;
  Json::Value array = J(R"(["s"])");
  EXPECT_FALSE(util::JsonObjToSzHash(object, &none) || util::JsonObjToSzHash(object, nullptr) ||
               util::JsonObjToSzHash(array, &hash));
  EXPECT_EQ(hash->slotCount, 0);
  EXPECT_TRUE(util::JsonObjToSzHash(object, &hash));
  mero::UniqueSzHash owner(hash);
  std::string stored;  // member order: ascending bytes of the names
  for (int i = 0; i < hash->slotCount; ++i) stored += std::string(hash->slots[i].key) + "=" + hash->slots[i].value + ";";
  EXPECT_EQ(stored, "b=true;n=5;neg=-2;r=1.5;s=x;z=;");
}

TEST(JsonCollectionsTest, SzHashToJsonObjSkipsEmptySlotsAndKeepsOtherMembers) {
  MLIBSZHASH* hash = MLIBCSzHashAlloc(256);
  for (const char* key : {"a", "gone", "b"}) MLIBCSzHashSetValue(&hash, key, key[0] == 'a' ? "x" : "y");
  mero::UniqueSzHash owner(hash);
  char* const value = std::exchange(hash->slots[1].value, nullptr);  // an empty slot, as readers may meet
  Json::Value null, text("t"), object = J(R"({"a":1,"keep":true})");
  EXPECT_FALSE(util::SzHashToJsonObj(hash, null) || util::SzHashToJsonObj(hash, text) ||
               util::SzHashToJsonObj(nullptr, object));
  EXPECT_TRUE(null.isNull() && text == "t");  // left unchanged
  EXPECT_TRUE(util::SzHashToJsonObj(hash, object));
  EXPECT_EQ(object, J(R"({"a":"x","b":"y","keep":true})"));
  hash->slots[1].value = value;
}

}  // namespace
