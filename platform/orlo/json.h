// JSON text for the event journal.
#pragma once

#include <string>
#include <string_view>

namespace orlo {

// Appends `text` as a JSON string, quotes included. Bytes that are no UTF-8 become U+FFFD, so that
// the line stays valid whatever an event carries.
void appendJsonString(std::string& out, std::string_view text);

}  // namespace orlo
