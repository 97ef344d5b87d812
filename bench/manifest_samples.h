#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace bench {

// The four ways in which a manifest tells the segments of one quality.
enum class Form { Timeline, List, Smooth, Number };

inline constexpr Form kForms[] = {Form::Timeline, Form::List, Form::Smooth, Form::Number};

const char* nameOf(Form form);
// Whether the manifest grows with the number of segments, so that reading XML is what costs.
bool isXMLBound(Form form);

// A manifest of one quality with `segments` media segments. Every element differs from its
// neighbours, as an encoder with a variable frame rate writes them; the number template is a
// handful of lines whatever the number.
std::vector<uint8_t> manifest(Form form, size_t segments);

// What the list of that manifest must hold, for checking: number of resources (with the
// initialisation) and the text of the last one.
size_t expectedResources(Form form, size_t segments);
std::string expectedLastReference(Form form, size_t segments);

}  // namespace bench
