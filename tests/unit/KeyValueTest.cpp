#include <gtest/gtest.h>
#include <json/reader.h>

#include <string>

#include "webapi/WebAPIUtil.h"

namespace {

namespace util = MERO::WebAPIUtil;

Json::Value J(const std::string& text) {
  Json::Value value;
  Json::Reader reader;
  EXPECT_TRUE(reader.parse(text, value)) << text;
  return value;
}

TEST(KeyValueTest, JsonObjTostrPairWritesMembersInByteOrderPerFlags) {
  struct Case { const char* object; bool url; bool json; std::string want; };
  const Case cases[] = {
      {"{}", true, true, ""},
      {R"({"b":"x y","a":1})", false, false, "a=1&b=x y"},
      {R"({"b":"x y","a":1})", true, false, "a=1&b=x%20y"},
      {R"({"b":"x y","a":1})", false, true, R"(a=1&b="x y")"},
      {R"({"b":"x y","a":1})", true, true, "a=1&b=%22x%20y%22"},
      {R"({"d":[1,2],"o":{"k":1},"e":"v"})", false, false, "e=v"},     // no plain text for them
      {R"({"d":[1,2],"o":{"z":1,"k":"v"}})", false, true, R"(d=[1,2]&o={"k":"v","z":1})"},
      {R"({"z":null,"t":true,"r":1.5,"s":""})", false, false, "r=1.5&s=&t=true&z="},
      {R"({"z":null,"s":""})", false, true, R"(s=""&z=null)"},
      {R"({"b":1,"a":2,"B":3,"":4})", false, false, "=4&B=3&a=2&b=1"},
      {R"({"k=&":"a=b&c"})", false, false, "k=&=a=b&c"},                  // names never encoded
      {R"({"k=&":"a=b&c"})", true, false, "k=&=a%3Db%26c"},
      {R"({"u":"\u00e9"})", true, false, "u=%C3%A9"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.object) + (c.url ? " url" : "") + (c.json ? " json" : ""));
    std::string out = "previous";
    EXPECT_TRUE(util::JsonObjTostrPair(J(c.object), out, c.url, c.json));
    EXPECT_EQ(out, c.want);
  }
  for (const char* notObject : {"[1]", R"("a=1")", "null"}) {
    std::string out = "previous";
    EXPECT_FALSE(util::JsonObjTostrPair(J(notObject), out, true, true)) << notObject;
    EXPECT_EQ(out, "previous");
  }
}

TEST(KeyValueTest, StrPairToJsonObjTakesJsonValuesTheWayTheReaderReadsThem) {
  // jsoncpp's Reader nests 1000 deep and throws on the 1001st level.
  const std::string deepest = std::string(1000, '[') + std::string(1000, ']');
  const std::string tooDeep = std::string(1001, '[') + std::string(1001, ']');
  // After a comment in an object, jsoncpp's Reader takes any token for the
  // "," (here "]" and a failed comment "/\""), then nests on.
  const std::string afterSkippedClose = R"({"a":1 /**/ ] "b":)" + std::string(1100, '[');
  const std::string afterBadComment = R"({"a":1 /**/ /" "b":)" + std::string(1100, '[');
  struct Case { std::string text; bool url; bool json; std::string want; };
  const Case cases[] = {
      {"a=1&b=x&c=true&d=[1,2]&e=-3&f=5abc", false, true,
       R"({"a":1,"b":"x","c":true,"d":[1,2],"e":-3,"f":"5abc"})"},
      {"a=1&b=x&c=true&d=[1,2]&e=-3&f=5abc", false, false,
       R"({"a":"1","b":"x","c":"true","d":"[1,2]","e":"-3","f":"5abc"})"},
      {"h=&i&=v&k=a=b", false, false, R"({"":"v","k":"a=b"})"},
      {"&&a=1&&&a=2&", false, false, R"({"a":"2"})"},
      {std::string("a=1\0b=2", 7), false, false, R"({"a":"1"})"},   // the text ends at NUL
      {"a%20b=1&q=a+b&p=%26%3D", true, false, R"({"a%20b":"1","q":"a b","p":"&="})"},
      {"k=%41%&j=%4", true, true, R"({"k":"","j":""})"},             // a cut escape empties
      {"q=a+b", false, false, R"({"q":"a+b"})"},
      {"s=5.0&t=1e2&u=-0&v=%205&w=05&x=/*c*/7", true, true,
       R"({"s":"5.0","t":"1e2","u":"-0","v":" 5","w":5,"x":"/*c*/7"})"},
      {"a=1.5&b=-2.0&c=4294967296&d=null&e=%22x%22&f=truex&g=[1]x&h=[1,2", true, true,
       R"({"a":1.5,"b":-2.0,"c":4294967296,"d":null,"e":"x","f":true,"g":[1],"h":"[1,2"})"},
      {"o=%7B%22k%22%3A%5B%22%C3%A9%22%5D%7D", true, true, R"({"o":{"k":["\u00e9"]}})"},
      {"n=" + std::string(600, '[') + std::string(600, ']'), false, true,
       R"({"n":)" + std::string(600, '[') + std::string(600, ']') + "}"},
      // The leading value is read; what follows it, however deep, is not.
      {"n=[1/**/]" + std::string(600, '['), false, true, R"({"n":[1]})"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 60) + (c.url ? " url" : "") + (c.json ? " json" : ""));
    Json::Value target(Json::objectValue);
    EXPECT_TRUE(util::strPairToJsonObj(c.text, target, c.url, c.json));
    EXPECT_EQ(target, J(c.want));
  }
  Json::Value deepTarget(Json::objectValue);
  EXPECT_TRUE(util::strPairToJsonObj("n=" + deepest, deepTarget, false, true));
  const Json::Value* level = &deepTarget["n"];
  int depth = 0;
  for (; level->isArray() && level->size() == 1; level = &(*level)[0]) ++depth;
  EXPECT_EQ(depth, 999);  // 999 arrays of one element, the innermost empty
  EXPECT_TRUE(level->isArray() && level->empty());
  // Too deep for jsoncpp, which throws: stays the text it was.
  for (const std::string& value : {tooDeep, afterSkippedClose, afterBadComment, std::string(5000, '{')}) {
    Json::Value target(Json::objectValue);
    EXPECT_TRUE(util::strPairToJsonObj("n=" + value, target, false, true));
    EXPECT_EQ(target["n"], Json::Value(value));
  }
  Json::Value nul(Json::objectValue);
  EXPECT_TRUE(util::strPairToJsonObj("z=a%00b", nul, true, true));
  EXPECT_EQ(nul["z"], Json::Value(std::string("a\0b", 3)));
}

TEST(KeyValueTest, StrPairToJsonObjKeepsOtherMembersAndNeedsAnObject) {
  Json::Value target = J(R"({"keep":1,"a":"old"})");
  EXPECT_TRUE(util::strPairToJsonObj("a=new&b=2", target, false, false));
  EXPECT_EQ(target, J(R"({"keep":1,"a":"new","b":"2"})"));
  for (const char* notObject : {"null", "[]", R"("a=1")"}) {
    Json::Value other = J(notObject);
    EXPECT_FALSE(util::strPairToJsonObj("a=1", other, true, true)) << notObject;
    EXPECT_EQ(other, J(notObject));
  }
}

TEST(KeyValueTest, WrittenPairsReadBackPerFlags) {
  const Json::Value object = J(R"({"s":"a&b=c d+","n":-3,"r":1.5,"t":true,"z":null,"e":"",
      "arr":[1,"x&y",{"k":null}],"o":{"k":"v"},"u":"\u00e9 \u20ac"})");
  struct Case { bool url; bool json; const char* want; };
  const Case cases[] = {
      {true, true, nullptr},  // the object itself
      {true, false, R"({"s":"a&b=c d+","n":"-3","r":"1.5","t":"true","u":"\u00e9 \u20ac"})"},
      // Unencoded, "&" ends a value and "+" stays.
      {false, false, R"({"s":"a","b":"c d+","n":"-3","r":"1.5","t":"true","u":"\u00e9 \u20ac"})"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.url ? "url " : "") + (c.json ? "json" : ""));
    std::string pairs;
    ASSERT_TRUE(util::JsonObjTostrPair(object, pairs, c.url, c.json));
    Json::Value back(Json::objectValue);
    ASSERT_TRUE(util::strPairToJsonObj(pairs, back, c.url, c.json));
    EXPECT_EQ(back, c.want ? J(c.want) : object) << pairs;
  }
  std::string pairs;
  Json::Value back(Json::objectValue);
  util::JsonObjTostrPair(J(R"({"s":"a&b"})"), pairs, false, true);
  EXPECT_TRUE(util::strPairToJsonObj(pairs, back, false, true));
  EXPECT_EQ(back, J(R"({"s":"\"a"})"));  // cut at the "&"
}

}  // namespace
