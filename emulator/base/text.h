#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tarvex::emulator {

/// Name and value pairs in the order in which they came.
using pair_list = std::vector<std::pair<std::string, std::string>>;

/// The whole text as a decimal number; nothing when it is anything else or does not fit.
[[nodiscard]] std::optional<std::int64_t> number_of(std::string_view text);

/// The pieces between separators; an empty text has one empty piece.
[[nodiscard]] std::vector<std::string_view> split(std::string_view text, char separator);

/// ASCII letters in lower or upper case, all else unchanged; never by the locale.
[[nodiscard]] std::string lower(std::string_view text);
[[nodiscard]] std::string upper(std::string_view text);
[[nodiscard]] bool equal_ignoring_case(std::string_view a, std::string_view b);
[[nodiscard]] std::string_view trim(std::string_view text);

/// Undoes %XX; with `plus_is_space` also the form coding of queries. A broken escape stays as it stands.
[[nodiscard]] std::string percent_decode(std::string_view text, bool plus_is_space);

/// The pairs of a query or of a form body, decoded. A name without '=' has an empty value.
[[nodiscard]] pair_list form_pairs(std::string_view text);

/// The first value of that name; nothing when absent.
[[nodiscard]] std::optional<std::string> pair_value(const pair_list& pairs, std::string_view name);

/// RFC 4648 base64 with padding. Decoding gives nothing for a text that is not base64.
[[nodiscard]] std::string base64_encode(std::string_view bytes);
[[nodiscard]] std::optional<std::string> base64_decode(std::string_view text);

/// The same for the URL alphabet without padding, as JSON web tokens have it (RFC 7515).
[[nodiscard]] std::optional<std::string> base64url_decode(std::string_view text);

/// Lower-case hexadecimal digits, two for each byte.
[[nodiscard]] std::string hex(std::string_view bytes);

/// Cryptographically random bytes as lower-case hexadecimal digits (two for each byte).
[[nodiscard]] std::string random_hex(std::size_t bytes);

/// True when `text` fits `pattern`, in which '*' stands for any text without and "**" for any text with '/'.
[[nodiscard]] bool glob_match(std::string_view pattern, std::string_view text);

}  // namespace tarvex::emulator
