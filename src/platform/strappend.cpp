#include "platform/strappend.h"

std::string strappend(std::string text, std::string_view value, const char *separator) {
    if (separator != nullptr)
        text.append(separator);
    text.append(value);
    return text;
}
