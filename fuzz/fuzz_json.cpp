// kelbase - fuzz/fuzz_json.cpp
//
// constructFromParse on arbitrary text, then findMember with every type code on the members
// of the root and of nested objects, and JSONToString of whatever parsed (which must parse
// again).
#include <kel/Json.h>

#include "KEL_Json/RapidJson.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

void Probe(const KEL::Json::TJsonObject& object, int depth) {
    KEL::Json::value* v = object.jsonValue_Get();
    if (!v->IsObject()) {
        try {
            object.findMember("x", KEL::Json::TDataType::Int);
            std::abort(); // a non-object has no members
        } catch (const KEL::Json::TJsonException&) {
        }
        return;
    }
    for (auto it = v->MemberBegin(); it != v->MemberEnd(); ++it) {
        std::string name(it->name.GetString(), it->name.GetStringLength());
        if (name.find('\0') != std::string::npos) continue; // names are passed NUL-terminated
        for (int type = 0; type <= 5; ++type) {
            try {
                KEL::Json::TJsonObjectNS::DataType out{};
                KEL::Json::TJsonObject m =
                    object.findMember(name.c_str(), static_cast<KEL::Json::TDataType::E>(type), &out);
                if (type == KEL::Json::TDataType::Object && depth < 2) Probe(m, depth + 1);
            } catch (const KEL::Json::TJsonException&) {
            }
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    try {
        KEL::Json::TJsonObject root = KEL::Json::TJsonObject::constructFromParse(text.c_str());
        Probe(root, 0);
        std::string out = KEL::Json::JSONToString(*root.jsonDoc_Get());
        // What we write must parse again. The texts need not be equal: RapidJSON's default
        // (fast) number parse may land one unit off for long numbers.
        try {
            KEL::Json::TJsonObject::constructFromParse(out.c_str());
        } catch (const KEL::Json::TJsonException&) {
            std::abort();
        }
    } catch (const KEL::Json::TJsonException&) {
    }
    return 0;
}
