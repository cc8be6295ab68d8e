#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tarvo::platform {

// Bytes and texts in the forms in which they travel. Threads: any. Errors: none but those told.

/// RFC 4648, standard alphabet, padded, no line breaks.
std::string base64Encode(std::string_view bytes);
/// The bytes of such a text; absent for anything else.
std::optional<std::string> base64Decode(std::string_view text);

/// Whether the bytes are well-formed UTF-8 (Unicode 15, table 3-7): no overlong forms, no surrogates.
bool isValidUtf8(std::string_view bytes);

/// The marks that stand for themselves in a segment of a URL's path, beside ASCII letters and digits (RFC 3986).
inline constexpr std::string_view kPathMarks = "-._~!$&'()*+,;=:@";

/// Whether the character is an ASCII letter or digit, or one of `marks`.
bool isPlain(char c, std::string_view marks);
/// The text with each byte that is not plain as `%XX`, upper-case digits.
std::string percentEncoded(std::string_view text, std::string_view marks);

/// The text without the blanks, tabs and line ends around it.
std::string_view trimmed(std::string_view text);

/// A new random UUID (version 4, RFC 9562), in upper case; absent when the system gives no random bytes.
std::optional<std::string> randomUuid();
/// The UUID in upper case; absent when the text is none.
std::optional<std::string> upperCaseUuid(std::string_view text);

}  // namespace tarvo::platform
