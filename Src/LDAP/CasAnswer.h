// kelbase - Src/LDAP/CasAnswer.h
//
// The parts of CCASServer::TestConnection that need no network: the validation request it
// sends and the judgement of the answer it gets back, apart so that they can be tested and
// fuzzed with bytes alone.
#pragma once

#include <string>

namespace KEL {
namespace Internals {

/// The request line of a connection test: "GET https://<server>:<port><contextRoot>
/// <uriServiceValidate>?service=https://<localHost>&ticket=definitely_invalid HTTP/1.1" ended by
/// two bare line feeds.
std::string CasValidationRequest(const std::string& server, unsigned int port, const std::string& contextRoot,
                                 const std::string& uriServiceValidate, const std::string& localHost);

/// The plain-text validation protocol: 1 when the answer (a NUL-terminated text) holds a blank
/// line after the headers followed by the body "no" and a line end, 135 otherwise.
unsigned int JudgePlainCasAnswer(const char* answer);

/// The XML validation protocol: the answer is handed to the XML loader as a file name (not
/// parsed from memory); 1 when that loads and holds
/// /cas:serviceResponse/cas:authenticationFailure, 135 otherwise.
unsigned int JudgeXmlCasAnswer(const char* answer);

} // namespace Internals
} // namespace KEL
