// The recorded result of MERO::WebAPI and the validation's effect on its
// members, in process.
#include <gtest/gtest.h>

#include "ApplianceRootEnv.h"
#include "webapi/JsonValue.h"
#include "webapi/WebAPI.h"

namespace {

// A handler sees what validation filled in through the protected members.
class NoHandler : public MERO::WebAPI {
 public:
  NoHandler() : WebAPI("unit.api", nullptr) {}
  void HandleRequest() override {}
  const char* Api() const { return api; }
  int Version() const { return version; }
  bool AllowSharing() const { return allowSharing; }
  const char* UiLanguage() const { return uiLanguage; }
};

class WebAPITest : public webapi_test::ApplianceRootTest {};

Json::Value Parse(const char* text) {
  Json::Value value;
  EXPECT_TRUE(MERO::JsonValue::fromString(value, text)) << text;
  return value;
}

TEST_F(WebAPITest, EnvelopeOfEachRecordedResult) {
  struct Case {
    const char* name;
    void (*record)(MERO::WebAPI&);
    const char* envelope;
  } cases[] = {
      {"nothing", [](MERO::WebAPI&) {}, R"({"success":true})"},
      {"empty object", [](MERO::WebAPI& w) { Json::Value v(Json::objectValue); w.SetResponse(v); },
       R"({"success":true,"data":{}})"},
      {"false counts as data", [](MERO::WebAPI& w) { Json::Value v(false); w.SetResponse(v); },
       R"({"success":true,"data":false})"},
      {"error drops data",
       [](MERO::WebAPI& w) {
         Json::Value v;
         v["n"] = 1;
         w.SetResponse(v);
         w.SetError(105);
       },
       R"({"success":false,"error":{"code":105}})"},
      {"error with detail",
       [](MERO::WebAPI& w) {
         Json::Value v;
         v["name"] = "x";
         w.SetError(400, v);
       },
       R"({"success":false,"error":{"code":400,"errors":{"name":"x"}}})"},
      {"response clears error",
       [](MERO::WebAPI& w) {
         w.SetError(400);
         Json::Value v(Json::arrayValue);
         w.SetResponse(v);
       },
       R"({"success":true,"data":[]})"},
  };
  for (const Case& c : cases) {
    NoHandler web;
    c.record(web);
    EXPECT_EQ(web.GetOutput(), Parse(c.envelope)) << c.name;
    EXPECT_EQ(web.GetError(), web.GetOutput()["success"].asBool() ? 0 : web.GetOutput()["error"]["code"].asInt())
        << c.name;
  }
}

TEST_F(WebAPITest, ValidationFillsTheMembersOnlyWhenItPasses) {
  webapi_test::WriteRootFile("usr/mero/meroman/webapi/unit.api", R"({
    "Unit.Item": {"minVersion": 1, "maxVersion": 3, "allowSharing": true,
                  "methods": {"2": ["Get"]}}})");
  NoHandler web;
  EXPECT_FALSE(web.CheckRequestParam("Unit.Item", "get", "1"));
  EXPECT_EQ(web.GetError(), 103);
  EXPECT_EQ(web.Api(), nullptr);
  EXPECT_FALSE(web.AllowSharing());

  EXPECT_TRUE(web.CheckRequestParam("Unit.Item", "GET", "2"));
  EXPECT_STREQ(web.Api(), "Unit.Item");
  EXPECT_EQ(web.Version(), 2);
  EXPECT_TRUE(web.AllowSharing());
  EXPECT_STREQ(web.UiLanguage(), "en");
}

TEST_F(WebAPITest, WrongTypesInTheDescriptionRefuseInsteadOfThrowing) {
  webapi_test::WriteRootFile("usr/mero/meroman/webapi/unit.api", R"({
    "Text.Bounds": {"minVersion": "1", "maxVersion": "2", "methods": {"1": ["get"]}},
    "Array.Methods": {"minVersion": 1, "maxVersion": 1, "methods": [["get"]]},
    "Scalar.Entry": 7})");
  NoHandler web;
  const std::pair<const char*, int> cases[] = {
      {"Text.Bounds", 104}, {"Array.Methods", 103}, {"Scalar.Entry", 102}};
  for (const auto& [apiName, code] : cases) {
    EXPECT_FALSE(web.CheckRequestParam(apiName, "get", "1")) << apiName;
    EXPECT_EQ(web.GetError(), code) << apiName;
  }
}

}  // namespace
