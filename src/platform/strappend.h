#pragma once

#include <string>
#include <string_view>

// Returns text followed by separator (when not null) and value. The caller
// moves its accumulated text in and keeps only the result.
std::string strappend(std::string text, std::string_view value, const char *separator);
