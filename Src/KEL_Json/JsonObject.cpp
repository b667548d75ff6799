// kelbase - Src/KEL_Json/JsonObject.cpp
//
// TJsonObject on RapidJSON. The parse feeds the document through a thin handler that only
// counts nesting, so speed stays RapidJSON's and the recursion depth stays bounded.
#define KEL_SOURCE_FILE "Src/KEL_Json"
#include <kel/Exceptions.h>
#include <kel/Json.h>
#include <kel/Trace.h>

#include "KEL_Json/RapidJson.h"

#include <limits>

namespace KEL {
namespace Json {

namespace {

constexpr unsigned int kTraceBit = 0x40000000u;
constexpr unsigned kMaxDepth = 512;

// Forwards every event to the document; refuses a level of nesting past kMaxDepth, and a
// number that does not fit a double. RapidJSON 1.1.0 refuses an exponent above 308 but lets
// a long mantissa with a smaller one (411111111111172699649671e+296) overflow to infinity,
// which no JSON text can hold: such a document could not be written back.
class CDepthGuard {
public:
    using Ch = char;
    explicit CDepthGuard(document& doc) noexcept : m_Doc(doc) {}
    bool Null() { return m_Doc.Null(); }
    bool Bool(bool b) { return m_Doc.Bool(b); }
    bool Int(int i) { return m_Doc.Int(i); }
    bool Uint(unsigned u) { return m_Doc.Uint(u); }
    bool Int64(int64_t i) { return m_Doc.Int64(i); }
    bool Uint64(uint64_t u) { return m_Doc.Uint64(u); }
    bool Double(double d) {
        if (d > std::numeric_limits<double>::max() || d < -std::numeric_limits<double>::max()) {
            m_bTooBig = true;
            return false;
        }
        return m_Doc.Double(d);
    }
    bool RawNumber(const Ch* s, rapidjson::SizeType n, bool copy) { return m_Doc.RawNumber(s, n, copy); }
    bool String(const Ch* s, rapidjson::SizeType n, bool copy) { return m_Doc.String(s, n, copy); }
    bool Key(const Ch* s, rapidjson::SizeType n, bool copy) { return m_Doc.Key(s, n, copy); }
    bool StartObject() { return ++m_uDepth <= kMaxDepth && m_Doc.StartObject(); }
    bool EndObject(rapidjson::SizeType n) {
        --m_uDepth;
        return m_Doc.EndObject(n);
    }
    bool StartArray() { return ++m_uDepth <= kMaxDepth && m_Doc.StartArray(); }
    bool EndArray(rapidjson::SizeType n) {
        --m_uDepth;
        return m_Doc.EndArray(n);
    }

    bool NumberTooBig() const noexcept { return m_bTooBig; }

private:
    document& m_Doc;
    unsigned m_uDepth = 0;
    bool m_bTooBig = false;
};

// Document::Populate hands the document (as handler) to this generator and keeps the root
// when it succeeds; the parse result is kept here.
class CParser {
public:
    explicit CParser(const char* text) noexcept : m_pText(text) {}
    bool operator()(document& doc) {
        rapidjson::StringStream in(m_pText);
        CDepthGuard guard(doc);
        rapidjson::Reader reader;
        m_Result = reader.Parse<rapidjson::kParseDefaultFlags>(in, guard);
        if (guard.NumberTooBig()) m_Result.Set(rapidjson::kParseErrorNumberTooBig, m_Result.Offset());
        return !m_Result.IsError();
    }
    const rapidjson::ParseResult& Result() const noexcept { return m_Result; }

private:
    const char* m_pText;
    rapidjson::ParseResult m_Result;
};

[[noreturn]] void Fail(const char* function, const char* format, const char* argument) {
    KEL_TRACE(KEL_MODULE_INFO_KelLib, kTraceBit, function, format) << argument;
    // The exception text is the trace text without its "ERROR: " prefix.
    std::string text(format + 7);
    size_t at = text.find("%s");
    if (at != std::string::npos) text.replace(at, 2, argument);
    throw TJsonException(text);
}

} // namespace

const char* GetParseErrorText(unsigned int code) noexcept {
    // Only codes of the enumeration may be converted to it; everything else is unknown.
    if (code > static_cast<unsigned int>(rapidjson::kParseErrorUnspecificSyntaxError)) return "Unknown error.";
    return rapidjson::GetParseError_En(static_cast<rapidjson::ParseErrorCode>(code));
}

TJsonObject::TJsonObject(std::shared_ptr<document> doc) : m_pDoc(std::move(doc)), m_pValue(m_pDoc.get()) {}

TJsonObject::TJsonObject(std::shared_ptr<document> doc, value* val) noexcept : m_pDoc(std::move(doc)), m_pValue(val) {}

TJsonObject::~TJsonObject() = default;

TJsonObject TJsonObject::constructFromParse(const char* text) {
    auto doc = std::make_shared<document>();
    CParser parser(text ? text : "");
    doc->Populate(parser);
    if (parser.Result().IsError())
        Fail("KEL::Json::TJsonObject::constructFromParse", "ERROR: JSON Parse doc error:%s",
             GetParseErrorText(static_cast<unsigned int>(parser.Result().Code())));
    return TJsonObject(std::move(doc));
}

TJsonObject TJsonObject::findMember(const char* name, TDataType::E type, TJsonObjectNS::DataType* result) const {
    static const char* const kFunction = "KEL::Json::TJsonObject::findMember";
    if (!name) name = "";
    if (!m_pValue || !m_pValue->IsObject()) Fail(kFunction, "ERROR: Need %s in JSON, but not found", name);
    value::MemberIterator it = m_pValue->FindMember(name);
    if (it == m_pValue->MemberEnd()) Fail(kFunction, "ERROR: Need %s in JSON, but not found", name);
    value& v = it->value;
    switch (type) {
    case TDataType::Object:
        if (!v.IsObject()) Fail(kFunction, "ERROR: Need %s as object, but other type found", name);
        break;
    case TDataType::Array:
        if (!v.IsArray()) Fail(kFunction, "ERROR: Need %s as Array, but other type found", name);
        break;
    case TDataType::String:
        if (!v.IsString()) Fail(kFunction, "ERROR: Need %s as String, but other type found", name);
        if (result) result->s = v.GetString();
        break;
    case TDataType::Int:
        if (!v.IsInt()) Fail(kFunction, "ERROR: Need %s as Int, but other type found", name);
        if (result) result->i = v.GetInt();
        break;
    case TDataType::Double:
        if (!v.IsDouble()) Fail(kFunction, "ERROR: Need %s as Double, but other type found", name);
        if (result) result->d = v.GetDouble();
        break;
    }
    return TJsonObject(m_pDoc, &v);
}

std::string JSONToString(const document& doc) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    // The writer stops at a NaN or an infinity (a caller may have set one through the value);
    // half a document must not pass for the whole.
    if (!doc.Accept(writer))
        Fail("KEL::Json::JSONToString", "ERROR: JSON document not written:%s", "a number is NaN or infinite");
    return std::string(buffer.GetString(), buffer.GetSize());
}

} // namespace Json
} // namespace KEL
