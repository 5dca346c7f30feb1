// JSON strings for the event journal.
#pragma once

#include <string>
#include <string_view>

namespace orlo {

// Appends `text` as a JSON string, including the quotes. Invalid UTF-8 becomes U+FFFD, so that the
// line is always valid JSON.
void appendJsonString(std::string& out, std::string_view text);

}  // namespace orlo
