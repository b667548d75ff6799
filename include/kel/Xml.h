// kelbase - Xml.h
//
// The XML document model of the suite's configuration and language files: pugixml, offered
// under KEL::XML (documents, nodes, attributes, text, XPath queries, writers), so the suite
// writes KEL::XML::xml_document and does not depend on the spelling of the parser's namespace.
#pragma once

#include <pugixml.hpp>

namespace KEL {
namespace XML = ::pugi;
}
