#ifndef WEBCHANNEL_TRANSPORT_BASE64_H
#define WEBCHANNEL_TRANSPORT_BASE64_H

#include <string>
#include <string_view>

// Standard base64 (with "=" padding) on one line, however long the input.
std::string base64Encode(std::string_view text);

#endif
