// Reads the flat XML documents of S3: lists of objects, and errors. They come from a server and may be
// hostile: depth and memory are bounded, there are no entities but those of XML itself, and no document is
// built in memory.
#pragma once

#include <functional>
#include <string_view>

namespace Agent::Remote {

/// Called at the end of each element: the name of its parent element, or "" for the outermost one; its own;
/// and its text, without that of its children and with entities replaced. Names lack their prefix.
using ElementVisitor =
    std::function<void(std::string_view parent, std::string_view name, std::string_view text)>;

/// Reads a document. Raises Failure::Backend for text that is not well-formed, for a document type and for
/// more than 32 levels of elements.
void ReadXml(std::string_view text, const ElementVisitor& visit);

} // namespace Agent::Remote
