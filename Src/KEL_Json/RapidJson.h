// kelbase - Src/KEL_Json/RapidJson.h
//
// RapidJSON as kelbase includes it. RapidJSON 1.1.0 (the release Debian ships) computes
// `null + n` in its internal stack before the stack's first allocation (upstream issue
// Tencent/rapidjson#1724, fixed after that release). Clang's UBSan reports it on every parse;
// the check is switched off for RapidJSON's own functions only, so the rest of kelbase stays
// fully checked. GCC does not report it.
#pragma once

#if defined(__clang__)
#pragma clang attribute push(__attribute__((no_sanitize("pointer-overflow"))), apply_to = function)
#endif

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#if defined(__clang__)
#pragma clang attribute pop
#endif
