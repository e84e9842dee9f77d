// OlXmlLimits: bounds a parse never exceeds, whatever the input.
//
// Past a bound the parse ends with a SAXParseException whose message starts with
// "XML parse error: " and names the bound. The defaults leave room far beyond any request of
// the command channel (a frame must fit in the pipe, so about 1 MiB at most) while keeping the
// memory of one parse bounded: roughly a few times the input plus about 200 bytes per element.
#pragma once

#include <cstddef>

struct OlXmlLimits {
  // Largest input, in bytes, read from a string, file or standard input.
  std::size_t max_input_bytes = 16u << 20;
  // Deepest element nesting; the root is at depth 1.
  std::size_t max_depth = 256;
  // Most elements plus attributes in one document.
  std::size_t max_nodes = 200000;
};
