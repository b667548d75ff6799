// kelbase - bench/bench_json.cpp
//
// constructFromParse + three typed findMember on a 1 KiB document, next to RapidJSON doing
// the same parse and look-ups itself.
#include <kel/Json.h>

#include "RatioReporter.h"

#include <rapidjson/document.h>

#include <cstdio>
#include <stdexcept>
#include <string>

namespace {

std::string MakeDocument() {
    std::string text = "{\"name\": \"raid-controller-0\", \"id\": 12345, \"temperature\": 41.5, \"disks\": [";
    for (int i = 0; text.size() < 900; ++i) {
        if (i) text += ", ";
        text += "{\"slot\": " + std::to_string(i) + ", \"state\": \"online\", \"size\": 4000787030016}";
    }
    text += "], \"settings\": {\"cache\": \"write-back\", \"patrol\": true}}";
    while (text.size() < 1024) text.insert(text.size() - 1, " ");
    return text;
}

const std::string g_Text = MakeDocument();

void BM_Kel_ParseAndFind(benchmark::State& state) {
    using KEL::Json::TDataType;
    for (auto _ : state) {
        KEL::Json::TJsonObject root = KEL::Json::TJsonObject::constructFromParse(g_Text.c_str());
        KEL::Json::TJsonObjectNS::DataType id{}, temp{}, name{};
        root.findMember("id", TDataType::Int, &id);
        root.findMember("temperature", TDataType::Double, &temp);
        root.findMember("name", TDataType::String, &name);
        benchmark::DoNotOptimize(id.i);
        benchmark::DoNotOptimize(temp.d);
        benchmark::DoNotOptimize(name.s);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * g_Text.size()));
}
BENCHMARK(BM_Kel_ParseAndFind);

void BM_RapidJson_ParseAndFind(benchmark::State& state) {
    for (auto _ : state) {
        rapidjson::Document doc;
        doc.Parse(g_Text.c_str());
        if (doc.HasParseError() || !doc.IsObject()) throw std::runtime_error("parse");
        auto id = doc.FindMember("id");
        auto temp = doc.FindMember("temperature");
        auto name = doc.FindMember("name");
        if (id == doc.MemberEnd() || !id->value.IsInt() || temp == doc.MemberEnd() || !temp->value.IsDouble() ||
            name == doc.MemberEnd() || !name->value.IsString())
            throw std::runtime_error("members");
        benchmark::DoNotOptimize(id->value.GetInt());
        benchmark::DoNotOptimize(temp->value.GetDouble());
        benchmark::DoNotOptimize(name->value.GetString());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * g_Text.size()));
}
BENCHMARK(BM_RapidJson_ParseAndFind);

} // namespace

int main(int argc, char** argv) {
    return kelbench::RunAndReport(argc, argv, [](const kelbench::CRatioReporter& reporter) {
        std::printf("document: %zu bytes\n", g_Text.size());
        reporter.PrintRatio("BM_Kel_ParseAndFind", "BM_RapidJson_ParseAndFind", 1.2);
    });
}
