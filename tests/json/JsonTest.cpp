// Tests of KEL::Json: parse messages, member types, conformance files, text output.
#include <kel/Exceptions.h>
#include <kel/Json.h>

#include "KEL_Json/RapidJson.h"

#include "../common/TraceCapture.h"

#include <gtest/gtest.h>

#include <boost/filesystem.hpp>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <limits>
#include <string>
#include <vector>

namespace {

using kel_test::CTraceCapture;
using KEL::Json::TDataType;
using KEL::Json::TJsonException;
using KEL::Json::TJsonObject;

// Catches the trace entries that the JSON layer writes (category 0x40000000 of kelbase).
class JsonTrace : public ::testing::Test {
protected:
    // The text of the only entry written, without its header line.
    static std::string OnlyEntryText() {
        const std::vector<std::string> entries = CTraceCapture::Entries();
        EXPECT_EQ(entries.size(), 1u);
        if (entries.empty()) return std::string();
        const std::string& e = entries.back();
        size_t nl = e.find('\n', 1);
        return nl == std::string::npos ? e : e.substr(nl + 1);
    }
    static std::string EntryHeader() {
        const std::vector<std::string> entries = CTraceCapture::Entries();
        if (entries.empty()) return std::string();
        const std::string& e = entries.back();
        return e.substr(0, e.find('\n', 1) + 1);
    }
    CTraceCapture m_Trace{0x40000000u, true};
};

std::string ParseError(const char* text) {
    try {
        TJsonObject::constructFromParse(text);
    } catch (const TJsonException& e) {
        return e.what();
    }
    return "(parsed)";
}

TEST_F(JsonTrace, EmptyDocumentIsRefusedWithTheLibraryMessage) {
    EXPECT_THROW(TJsonObject::constructFromParse(""), TJsonException);
    EXPECT_EQ(OnlyEntryText(), "ERROR: JSON Parse doc error:The document is empty.");
    EXPECT_NE(EntryHeader().find("kelbase::KEL::Json::TJsonObject::constructFromParse@"), std::string::npos);
    EXPECT_EQ(EntryHeader().rfind("\n**F40000000** ", 0), 0u);
}

TEST_F(JsonTrace, NothingIsTracedWhenTheCategoryIsOff) {
    KEL::KEL_MODULE_INFO_KelLib.SetTrcPoints(0);
    EXPECT_THROW(TJsonObject::constructFromParse("{"), TJsonException);
    EXPECT_TRUE(CTraceCapture::Entries().empty());
}

TEST(JsonParse, EveryErrorCodeHasItsEnglishMessage) {
    EXPECT_EQ(ParseError(""), "JSON Parse doc error:The document is empty.");
    EXPECT_EQ(ParseError("{} x"), "JSON Parse doc error:The document root must not be followed by other values.");
    EXPECT_EQ(ParseError("nul"), "JSON Parse doc error:Invalid value.");
    EXPECT_EQ(ParseError("{1:2}"), "JSON Parse doc error:Missing a name for object member.");
    EXPECT_EQ(ParseError("{\"a\" 2}"), "JSON Parse doc error:Missing a colon after a name of object member.");
    EXPECT_EQ(ParseError("{\"a\":2 \"b\":3}"),
              "JSON Parse doc error:Missing a comma or '}' after an object member.");
    EXPECT_EQ(ParseError("[1 2]"), "JSON Parse doc error:Missing a comma or ']' after an array element.");
    EXPECT_EQ(ParseError("[\"\\u12G4\"]"), "JSON Parse doc error:Incorrect hex digit after \\u escape in string.");
    EXPECT_EQ(ParseError("[\"\\uD800x\"]"), "JSON Parse doc error:The surrogate pair in string is invalid.");
    EXPECT_EQ(ParseError("[\"\\q\"]"), "JSON Parse doc error:Invalid escape character in string.");
    EXPECT_EQ(ParseError("[\"abc"), "JSON Parse doc error:Missing a closing quotation mark in string.");
    // Encoding is not validated with the default flags; the text exists all the same.
    EXPECT_STREQ(KEL::Json::GetParseErrorText(12), "Invalid encoding in string.");
    EXPECT_EQ(ParseError("[1e999]"), "JSON Parse doc error:Number too big to be stored in double.");
    // A long mantissa overflows below the exponent limit; found by fuzzing, RapidJSON 1.1.0
    // alone turns it into infinity. The largest double still parses.
    EXPECT_EQ(ParseError("[1e5, 411111111111172699649671e+296]"),
              "JSON Parse doc error:Number too big to be stored in double.");
    EXPECT_EQ(ParseError("{\"a\":-99999999999999999999e+300}"),
              "JSON Parse doc error:Number too big to be stored in double.");
    EXPECT_EQ(ParseError("[1.7976931348623157e308, -1.7976931348623157e308]"), "(parsed)");
    EXPECT_EQ(ParseError("[1.]"), "JSON Parse doc error:Miss fraction part in number.");
    EXPECT_EQ(ParseError("[1e]"), "JSON Parse doc error:Miss exponent in number.");
    EXPECT_STREQ(KEL::Json::GetParseErrorText(16), "Terminate parsing due to Handler error.");
    EXPECT_STREQ(KEL::Json::GetParseErrorText(17), "Unspecific syntax error.");
    EXPECT_STREQ(KEL::Json::GetParseErrorText(18), "Unknown error.");
    EXPECT_STREQ(KEL::Json::GetParseErrorText(0xFFFFFFFFu), "Unknown error.");
}

TEST(JsonParse, DeepNestingIsRefusedWithoutExhaustingTheStack) {
    std::string deep(100000, '[');
    EXPECT_EQ(ParseError(deep.c_str()), "JSON Parse doc error:Terminate parsing due to Handler error.");
    std::string ok = std::string(512, '[') + std::string(512, ']');
    EXPECT_NO_THROW(TJsonObject::constructFromParse(ok.c_str()));
    std::string tooDeep = std::string(513, '[') + std::string(513, ']');
    EXPECT_THROW(TJsonObject::constructFromParse(tooDeep.c_str()), TJsonException);
    std::string objects;
    for (int i = 0; i < 600; ++i) objects += "{\"a\":";
    objects += "1" + std::string(600, '}');
    EXPECT_THROW(TJsonObject::constructFromParse(objects.c_str()), TJsonException);
}

TEST(JsonParse, NullTextIsTheEmptyDocument) {
    EXPECT_EQ(ParseError(nullptr), "JSON Parse doc error:The document is empty.");
}

TEST_F(JsonTrace, IntegerLiteralIsNotADouble) {
    TJsonObject root = TJsonObject::constructFromParse("{\"n\": 1, \"f\": 1.0, \"e\": 1e2}");
    EXPECT_THROW(root.findMember("n", TDataType::Double), TJsonException);
    EXPECT_EQ(OnlyEntryText(), "ERROR: Need n as Double, but other type found");
    EXPECT_NE(EntryHeader().find("kelbase::KEL::Json::TJsonObject::findMember@"), std::string::npos);
    KEL::Json::TJsonObjectNS::DataType v{};
    EXPECT_NO_THROW(root.findMember("f", TDataType::Double, &v));
    EXPECT_EQ(v.d, 1.0);
    EXPECT_NO_THROW(root.findMember("e", TDataType::Double, &v));
    EXPECT_EQ(v.d, 100.0);
}

TEST_F(JsonTrace, IntMustFitSigned32Bits) {
    TJsonObject root = TJsonObject::constructFromParse(
        "{\"max\": 2147483647, \"min\": -2147483648, \"big\": 2147483648, \"u\": 4294967295, \"f\": 2.0}");
    KEL::Json::TJsonObjectNS::DataType v{};
    root.findMember("max", TDataType::Int, &v);
    EXPECT_EQ(v.i, 2147483647);
    root.findMember("min", TDataType::Int, &v);
    EXPECT_EQ(v.i, -2147483647 - 1);
    EXPECT_THROW(root.findMember("big", TDataType::Int), TJsonException);
    EXPECT_THROW(root.findMember("f", TDataType::Int), TJsonException);
    CTraceCapture::Clear();
    try {
        root.findMember("u", TDataType::Int);
        ADD_FAILURE() << "4294967295 taken as Int";
    } catch (const TJsonException& e) {
        EXPECT_STREQ(e.what(), "Need u as Int, but other type found");
    }
    EXPECT_EQ(OnlyEntryText(), "ERROR: Need u as Int, but other type found");
}

TEST_F(JsonTrace, EachTypeHasItsOwnMismatchText) {
    TJsonObject root = TJsonObject::constructFromParse("{\"s\": 5, \"o\": [], \"a\": {}, \"t\": \"x\"}");
    struct CASE {
        const char* name;
        TDataType::E type;
        const char* text;
    } cases[] = {
        {"o", TDataType::Object, "ERROR: Need o as object, but other type found"},
        {"a", TDataType::Array, "ERROR: Need a as Array, but other type found"},
        {"s", TDataType::String, "ERROR: Need s as String, but other type found"},
        {"t", TDataType::Int, "ERROR: Need t as Int, but other type found"},
        {"t", TDataType::Double, "ERROR: Need t as Double, but other type found"},
        {"missing", TDataType::Object, "ERROR: Need missing in JSON, but not found"},
    };
    for (const CASE& c : cases) {
        CTraceCapture::Clear();
        EXPECT_THROW(root.findMember(c.name, c.type), TJsonException) << c.name;
        EXPECT_EQ(OnlyEntryText(), c.text);
    }
}

TEST(JsonMembers, FoundMembersShareTheDocumentAndNest) {
    TJsonObject sub(std::shared_ptr<KEL::Json::document>{});
    {
        TJsonObject root = TJsonObject::constructFromParse("{\"a\": {\"b\": [1, 2]}, \"s\": \"text\"}");
        sub = root.findMember("a", TDataType::Object);
        EXPECT_EQ(sub.jsonDoc_Get(), root.jsonDoc_Get());
        KEL::Json::TJsonObjectNS::DataType v{};
        root.findMember("s", TDataType::String, &v);
        EXPECT_STREQ(v.s, "text");
    }
    // The root object is gone; the member keeps the document alive.
    TJsonObject b = sub.findMember("b", TDataType::Array);
    ASSERT_TRUE(b.jsonValue_Get()->IsArray());
    EXPECT_EQ(b.jsonValue_Get()->Size(), 2u);
    EXPECT_EQ(sub.jsonDoc_Get().use_count(), 2);
}

TEST(JsonMembers, TypeCodeAboveFourIsNotChecked) {
    TJsonObject root = TJsonObject::constructFromParse("{\"n\": null}");
    TJsonObject n = root.findMember("n", static_cast<TDataType::E>(7));
    EXPECT_TRUE(n.jsonValue_Get()->IsNull());
}

TEST(JsonMembers, LookupInANonObjectIsNotFound) {
    TJsonObject root = TJsonObject::constructFromParse("[1, 2]");
    try {
        root.findMember("x", TDataType::Int);
        ADD_FAILURE();
    } catch (const TJsonException& e) {
        EXPECT_STREQ(e.what(), "Need x in JSON, but not found");
    }
}

TEST(JsonText, WritesCompactTextThatParsesBackTheSame) {
    const char* text = "{ \"a\" : [1, 2.5, \"x\\n\", null, true], \"b\" : { } }";
    TJsonObject root = TJsonObject::constructFromParse(text);
    std::string out = KEL::Json::JSONToString(*root.jsonDoc_Get());
    EXPECT_EQ(out, "{\"a\":[1,2.5,\"x\\n\",null,true],\"b\":{}}");
    EXPECT_EQ(KEL::Json::JSONToString(*TJsonObject::constructFromParse(out.c_str()).jsonDoc_Get()), out);
}

TEST_F(JsonTrace, ANumberJsonCannotExpressIsNotWrittenAsHalfADocument) {
    TJsonObject root = TJsonObject::constructFromParse("[1, 2.5, 3]");
    (*root.jsonValue_Get())[1].SetDouble(std::numeric_limits<double>::infinity());
    try {
        KEL::Json::JSONToString(*root.jsonDoc_Get());
        ADD_FAILURE() << "an infinite number was written";
    } catch (const TJsonException& e) {
        EXPECT_STREQ(e.what(), "JSON document not written:a number is NaN or infinite");
    }
    EXPECT_EQ(OnlyEntryText(), "ERROR: JSON document not written:a number is NaN or infinite");
    (*root.jsonValue_Get())[1].SetDouble(std::numeric_limits<double>::quiet_NaN());
    EXPECT_THROW(KEL::Json::JSONToString(*root.jsonDoc_Get()), TJsonException);
}

// The public JSONTestSuite files: y_* must parse, n_* must be refused, i_* must not crash.
TEST(JsonConformance, AcceptsAndRefusesAsTheSuiteSays) {
    const char* shared = std::getenv("KEL_SHARED_DIR"); // a checkout elsewhere may point at it
    boost::filesystem::path dir =
        boost::filesystem::path(shared ? shared : KEL_SHARED_DIR) / "testdata" / "json" / "test_parsing";
    if (!boost::filesystem::is_directory(dir)) GTEST_SKIP() << "no conformance files at " << dir;
    unsigned int accepted = 0, refused = 0, either = 0, withNul = 0;
    for (const auto& entry : boost::filesystem::directory_iterator(dir)) {
        const std::string name = entry.path().filename().string();
        std::ifstream in(entry.path().string(), std::ios::binary);
        std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        bool parsed = true;
        try {
            TJsonObject::constructFromParse(text.c_str());
        } catch (const TJsonException&) {
            parsed = false;
        }
        if (text.find('\0') != std::string::npos) {
            // The interface takes NUL-terminated text: what follows a NUL is never seen.
            ++withNul;
            continue;
        }
        if (name[0] == 'y') {
            EXPECT_TRUE(parsed) << name;
            ++accepted;
        } else if (name[0] == 'n') {
            EXPECT_FALSE(parsed) << name;
            ++refused;
        } else {
            ++either;
        }
    }
    EXPECT_GT(accepted, 90u);
    EXPECT_GT(refused, 150u);
    RecordProperty("files", static_cast<int>(accepted + refused + either + withNul));
}

} // namespace
