#include "base/names.h"

#include <locale.h>
#include <wctype.h>

#include <algorithm>

namespace tarvex::emulator {
namespace {

constexpr std::size_t MAX_NAME_CHARACTERS = 255;

/// C.UTF-8 knows the case of all of Unicode; without it only ASCII letters fold.
locale_t unicode_locale() {
  static const locale_t locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
  return locale;
}

struct decoded {
  char32_t character;
  std::size_t length;
};

/// The character at the front of UTF-8. JSON brings valid UTF-8 only; anything else is at least not read past its end.
decoded decode(std::string_view text) {
  const auto lead = static_cast<unsigned char>(text[0]);
  const std::size_t length = lead < 0x80 ? 1 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
  char32_t character = length == 1 ? lead : lead & (0xffU >> (length + 1));
  for (std::size_t i = 1; i < length && i < text.size(); ++i) {
    character = (character << 6) | (static_cast<unsigned char>(text[i]) & 0x3fU);
  }
  return {character, std::min(length, text.size())};
}

void encode(char32_t character, std::string& out) {
  if (character < 0x80) {
    out += static_cast<char>(character);
    return;
  }
  const int more = character < 0x800 ? 1 : character < 0x10000 ? 2 : 3;
  out += static_cast<char>((0xff00U >> (more + 1) & 0xffU) | character >> (6 * more));
  for (int i = more - 1; i >= 0; --i) out += static_cast<char>(0x80U | (character >> (6 * i) & 0x3fU));
}

/// Box's description and its guides differ on more characters (< > : | ? *) and on names that are cleaned in silence;
/// here what the description forbids is refused, and a space in front; nothing is cleaned.
bool is_forbidden(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte < 0x20 || byte == 0x7f || c == '/' || c == '\\';
}

}  // namespace

std::string_view name_refusal(std::string_view utf8) {
  if (utf8.empty() || utf8 == "." || utf8 == ".." || utf8.front() == ' ' || utf8.back() == ' ' ||
      std::any_of(utf8.begin(), utf8.end(), is_forbidden)) {
    return "item_name_invalid";
  }
  // Characters, not bytes: every byte but the continuation bytes begins one.
  const auto characters =
      std::count_if(utf8.begin(), utf8.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xc0) != 0x80; });
  return static_cast<std::size_t>(characters) > MAX_NAME_CHARACTERS ? "item_name_too_long" : "";
}

std::string name_folded(std::string_view utf8) {
  std::string folded;
  folded.reserve(utf8.size());
  while (!utf8.empty()) {
    const auto [character, length] = decode(utf8);
    utf8.remove_prefix(length);
    // By way of the upper case, since some letters share it: a final sigma folds like any other one.
    const auto upper = towupper_l(static_cast<wint_t>(character), unicode_locale());
    encode(static_cast<char32_t>(towlower_l(upper, unicode_locale())), folded);
  }
  return folded;
}

}  // namespace tarvex::emulator
