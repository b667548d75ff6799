// kelbase - kelbase.h
//
// The umbrella header: a program of the suite includes this and nothing else.
#pragma once

#include <kel/Config.h>
#include <kel/Strings.h>
#include <kel/OutputStreams.h>
#include <kel/Exceptions.h>
#include <kel/Misc.h>
#include <kel/Functions.h>
#include <kel/Trace.h>
#include <kel/LanguageSupport.h>
#include <kel/Delegates.h>
#include <kel/Threading.h>
#include <kel/Xml.h>
#include <kel/CodeTables.h>
#include <kel/IniFiles.h>
#include <kel/FileSystem.h>
#include <kel/Json.h>
#include <kel/Sockets.h>
#include <kel/Ssl.h>
#include <kel/Crypt.h>
#include <kel/Cas.h>
#include <kel/Ldap.h>
