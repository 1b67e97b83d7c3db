// MERO::JsonValue::fromString held against texts that an independent JSON
// parser judged (data/json_corpus.txt, written by data/make_json_corpus.py),
// and the comments it accepts on top of JSON.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <string>
#include <vector>

#include "webapi/JsonValue.h"

namespace {

using MERO::JsonValue::fromString;

// The corpus's escapes: "\\" and "\xHH".
std::string Unescape(const std::string& line) {
  std::string text;
  for (size_t i = 0; i < line.size(); ++i) {
    if (line[i] != '\\') {
      text += line[i];
    } else if (i + 1 < line.size() && line[i + 1] == '\\') {
      text += '\\';
      ++i;
    } else {
      text += static_cast<char>(std::stoi(line.substr(i + 2, 2), nullptr, 16));
      i += 3;
    }
  }
  return text;
}

TEST(JsonValueTest, AcceptsExactlyTheTextsAStrictParserAccepts) {
  std::ifstream corpus(WEBAPI_JSON_CORPUS);
  ASSERT_TRUE(corpus) << WEBAPI_JSON_CORPUS;
  int json = 0, notJson = 0;
  std::vector<std::string> judgedOtherwise;
  for (std::string line; std::getline(corpus, line);) {
    ASSERT_TRUE(line.size() >= 2 && (line[0] == '+' || line[0] == '-') && line[1] == ' ') << line;
    const bool want = line[0] == '+';
    (want ? json : notJson)++;
    Json::Value value(Json::objectValue);
    const bool got = fromString(value, Unescape(line.substr(2)));
    if (got != want || (!got && !value.isNull())) judgedOtherwise.push_back(line);
  }
  EXPECT_GT(json, 500);  // a corpus that lost its lines proves nothing
  EXPECT_GT(notJson, 2000);
  std::string examples;
  for (size_t i = 0; i < judgedOtherwise.size() && i < 40; ++i)
    examples += judgedOtherwise[i] + "\n";
  EXPECT_TRUE(judgedOtherwise.empty())
      << judgedOtherwise.size() << " texts judged otherwise, such as:\n"
      << examples;
}

TEST(JsonValueTest, FromStringTakesOneWholeDocumentAndNeverHalfAValue) {
  struct Case {
    std::string text;
    bool ok;
  };
  const Case cases[] = {
      {R"({"a":[1,2,{"b":null}]})", true},
      {"7", true},
      {R"("s")", true},
      {"[] ", true},
      {"/* c */ {\"a\":1} // end", true},
      {"", false},
      {"{} x", false},
      {"7]", false},
      {"//c\r7", true},
      {"{\"a\":1} //\r]]]", false},
      {"{\"a\":1} /* never closed", false},
      {"{\"a\":1 // c\n{\"b\":2 // d\n}", false},   // jsoncpp's Reader alone accepts this
      {"{\"a\":1 // c\n{\"b\":2 // d\n}}", false},  // balanced, still not one object
      {"[1 // c\n, 2]", true},
      {"[1, // c\n]", false},
      {"[1] /", false},
      {"/* c */", false},
      {"7x", false},
      {"truex", false},
      {"nullnull", false},
      {"1.5.5", false},
      {"01", false},
      {"1=a&api=b", false},
      {"-0.5e+3", true},
      {"false", true},
      {R"({"a":)", false},
      {"[1,2", false},
      {R"({"a":1}{"b":2})", false},
      {std::string(600, '[') + std::string(600, ']'), false},  // deeper than kMaxJsonDepth
      {std::string(100000, '['), false},                       // would make jsoncpp throw
      {std::string(400, '[') + std::string(400, ']'), true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 40));
    Json::Value value("previous");
    EXPECT_EQ(MERO::JsonValue::fromString(value, c.text), c.ok);
    if (!c.ok) {
      EXPECT_TRUE(value.isNull());
    }
  }
  Json::Value parsed;
  ASSERT_TRUE(MERO::JsonValue::fromString(parsed, R"({"a":"x","n":3})"));
  EXPECT_EQ(parsed["a"].asString(), "x");
  EXPECT_EQ(parsed["n"].asInt(), 3);
}

TEST(JsonValueTest, ValuesComeOutAsTheTextSays) {
  Json::Value value;
  ASSERT_TRUE(fromString(value, R"(["\ud800","\udc00","\ud83d\ude00",1e400,-1e400,1e-400,-0])"));
  // A lone surrogate is kept as its three-byte form, as jsoncpp keeps a lone
  // low one, so that no two escapes come out as the same text.
  EXPECT_EQ(value[0].asString(), "\xed\xa0\x80");
  EXPECT_EQ(value[1].asString(), "\xed\xb0\x80");
  EXPECT_EQ(value[2].asString(), "\xf0\x9f\x98\x80");
  EXPECT_TRUE(std::isinf(value[3].asDouble()) && value[3].asDouble() > 0);
  EXPECT_TRUE(std::isinf(value[4].asDouble()) && value[4].asDouble() < 0);
  EXPECT_EQ(value[5].asDouble(), 0.0);
  EXPECT_TRUE(value[6].isIntegral());
}

}  // namespace
