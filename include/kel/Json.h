// kelbase - Json.h
//
// Typed access to parsed JSON documents (KEL::Json), on RapidJSON. A TJsonObject stands for
// one value inside a shared document; every object taken from it shares the document, so the
// document lives as long as any of them:
//
//     KEL::Json::TJsonObject root = KEL::Json::TJsonObject::constructFromParse(text);
//     std::string name = root.findMember("name", KEL::Json::TDataType::String).jsonValue_Get()->GetString();
//
// Every failure is traced (category 0x40000000 of kelbase) and thrown as TJsonException;
// nothing is ever returned in place of a value.
//
// Only RapidJSON's forward declarations are included here (rapidjson/fwd.h): the document and
// value types appear in the interface because the suite works on them directly, but a program
// that only passes objects around does not compile RapidJSON's templates. Include
// <rapidjson/document.h> to look into a value.
#pragma once

#include <kel/Config.h>

#include <rapidjson/fwd.h>

#include <memory>
#include <stdexcept>
#include <string>

namespace KEL {
namespace Json {

/// UTF-8 document with RapidJSON's memory-pool allocator (rapidjson::Document).
using document = ::rapidjson::Document;
/// A value inside such a document (rapidjson::Value).
using value = ::rapidjson::Value;

/// What every failure of this family throws; what() is the traced text without "ERROR: ".
class KEL_API TJsonException : public std::runtime_error {
public:
    explicit TJsonException(const std::string& message) : std::runtime_error(message) {}
};

namespace TJsonObjectNS {

/// The type a member must have.
struct TDataType {
    enum E { Object = 0, Array = 1, String = 2, Int = 3, Double = 4 };
};

/// Receives the member's value when findMember is given one: `i` for Int, `d` for Double,
/// `s` (pointing into the document, NUL-terminated) for String; untouched for other types.
union DataType {
    int i;
    double d;
    const char* s;
};

} // namespace TJsonObjectNS

using TDataType = TJsonObjectNS::TDataType;

/// One value of a parsed JSON document, holding a share of the document.
class KEL_API TJsonObject {
public:
    /// The root of `doc`.
    explicit TJsonObject(std::shared_ptr<document> doc);
    /// `val`, a value inside `doc`.
    TJsonObject(std::shared_ptr<document> doc, value* val) noexcept;
    TJsonObject(const TJsonObject&) = default;
    TJsonObject(TJsonObject&&) noexcept = default;
    TJsonObject& operator=(const TJsonObject&) = default;
    TJsonObject& operator=(TJsonObject&&) noexcept = default;
    ~TJsonObject();

    /// Parses `text` (NUL-terminated UTF-8, RapidJSON's default flags) into a new document and
    /// returns its root. A parse error is traced as "ERROR: JSON Parse doc error:<message>"
    /// with RapidJSON's English message and thrown. Nesting deeper than 512 arrays and objects
    /// is refused as a handler error ("Terminate parsing due to Handler error."), so hostile
    /// text cannot exhaust the stack. A null `text` is taken as "".
    static TJsonObject constructFromParse(const char* text);

    /// The member `name` of this object's value, which must be of `type` (Object, Array,
    /// String, Int = fits a signed 32-bit integer, Double = written with a fraction or an
    /// exponent; other type codes are not checked). Throws when this value is not an object or
    /// has no such member, or the member has another type. With `result` the member's scalar
    /// value is stored there as well (see DataType).
    TJsonObject findMember(const char* name, TDataType::E type, TJsonObjectNS::DataType* result = nullptr) const;

    const std::shared_ptr<document>& jsonDoc_Get() const noexcept { return m_pDoc; }
    value* jsonValue_Get() const noexcept { return m_pValue; }

private:
    std::shared_ptr<document> m_pDoc;
    value* m_pValue;
};

/// The document as compact JSON text (no blanks between tokens). A document holding a NaN or
/// an infinite number, which JSON cannot express, throws TJsonException ("JSON document not
/// written:a number is NaN or infinite").
KEL_API std::string JSONToString(const document& doc);

/// RapidJSON's English text for a parse error code: codes 1-17, else "Unknown error.".
KEL_API const char* GetParseErrorText(unsigned int code) noexcept;

} // namespace Json
} // namespace KEL
