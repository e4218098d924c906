#include "json_reader.h"

#include "tarvex_common.hpp"

#include <charconv>
#include <vector>

namespace tarvex::rest {
namespace {

void release(json_t* value) noexcept {
  json_decref(value);
}

using json_ptr = owner<json_t, release>;

/// A member of the array's object that was read last. The value is that object's.
struct seen_member {
  std::string_view key;
  std::string_view text;
  json_t* value = nullptr;
};
using seen_members = std::vector<seen_member>;

/// Reads the plain forms, and gives up, with null, on everything else: what is no JSON, and also escapes, numbers with
/// a fraction, and whatever else jansson's own reader had better judge.
class plain_reader {
 public:
  explicit plain_reader(std::string_view text) : rest_(text) {}

  json_ptr document() {
    skip_blanks();
    if (!ahead('{') && !ahead('[')) return {};
    json_ptr result = value(nullptr, DEPTH_MAX);
    skip_blanks();
    return rest_.empty() ? std::move(result) : json_ptr();
  }

 private:
  static constexpr int DEPTH_MAX = 32;

  bool ahead(char byte) const { return !rest_.empty() && rest_.front() == byte; }

  bool take(char byte) {
    if (!ahead(byte)) return false;
    rest_.remove_prefix(1);
    return true;
  }

  void skip_blanks() {
    while (ahead(' ') || ahead('\n') || ahead('\r') || ahead('\t')) rest_.remove_prefix(1);
  }

  /// After a member: whether another one follows. `whole` is set at the end.
  bool another(char closing, bool& whole) {
    skip_blanks();
    whole = take(closing);
    return !whole && take(',');
  }

  json_ptr value(seen_members* seen, int depth) {
    if (rest_.empty() || depth == 0) return {};
    switch (rest_.front()) {
      case '{':
        return object(seen, depth);
      case '[':
        return array(depth);
      case '"':
        return string();
      case 't':
        return word("true", json_true());
      case 'f':
        return word("false", json_false());
      case 'n':
        return word("null", json_null());
      default:
        return integer();
    }
  }

  json_ptr object(seen_members* seen, int depth) {
    json_ptr result(json_object());
    rest_.remove_prefix(1);
    skip_blanks();
    bool whole = take('}');
    for (std::size_t count = 0; result && !whole;) {
      json_ptr inner;
      std::string_view key;
      if (!key_of_member(key) || !(inner = member(key, seen, count, depth))) return {};
      if (json_object_setn_new_nocheck(result.get(), key.data(), key.size(), inner.release()) != 0) return {};
      // A key that came twice has released the value that `seen` knows.
      if (json_object_size(result.get()) != ++count) return {};
      if (!another('}', whole)) break;
      skip_blanks();
    }
    return whole ? std::move(result) : json_ptr();
  }

  bool key_of_member(std::string_view& key) {
    bool ascii = false;
    if (!quoted(key, ascii) || !ascii) return false;
    skip_blanks();
    if (!take(':')) return false;
    skip_blanks();
    return true;
  }

  json_ptr member(std::string_view key, seen_members* seen, std::size_t place, int depth) {
    const bool known = seen != nullptr && place < seen->size();
    if (known) {
      const seen_member& before = (*seen)[place];
      if (before.value != nullptr && before.key == key && rest_.starts_with(before.text)) {
        rest_.remove_prefix(before.text.size());
        return json_ptr(json_incref(before.value));
      }
    }
    const std::string_view begun = rest_;
    json_ptr result = value(nullptr, depth - 1);
    if (seen == nullptr || !result) return result;
    // Only what ends in a mark of its own is the same wherever the same text stands: 1 begins 12, too.
    const bool closed = !json_is_integer(result.get());
    const seen_member now = {key, begun.substr(0, begun.size() - rest_.size()), closed ? result.get() : nullptr};
    if (known) {
      (*seen)[place] = now;
    } else {
      seen->push_back(now);
    }
    return result;
  }

  json_ptr array(int depth) {
    json_ptr result(json_array());
    rest_.remove_prefix(1);
    skip_blanks();
    bool whole = take(']');
    seen_members seen;
    while (result && !whole) {
      json_ptr element = value(&seen, depth - 1);
      if (!element || json_array_append_new(result.get(), element.release()) != 0) return {};
      if (!another(']', whole)) break;
      skip_blanks();
    }
    return whole ? std::move(result) : json_ptr();
  }

  /// Cuts off a text in quotes that stands for itself.
  bool quoted(std::string_view& text, bool& ascii) {
    if (!take('"')) return false;
    unsigned char all = 0;
    std::size_t length = 0;
    for (; length < rest_.size() && rest_[length] != '"'; ++length) {
      const auto byte = static_cast<unsigned char>(rest_[length]);
      if (byte < ' ' || byte == '\\') return false;
      all |= byte;
    }
    if (length == rest_.size()) return false;
    text = rest_.substr(0, length);
    rest_.remove_prefix(length + 1);
    ascii = all < 0x80;
    return true;
  }

  json_ptr string() {
    std::string_view text;
    bool ascii = false;
    if (!quoted(text, ascii)) return {};
    // The other form refuses what is no UTF-8.
    return json_ptr((ascii ? json_stringn_nocheck : json_stringn)(text.data(), text.size()));
  }

  json_ptr word(std::string_view text, json_t* meaning) {
    if (!rest_.starts_with(text)) return {};
    rest_.remove_prefix(text.size());
    return json_ptr(meaning);
  }

  json_ptr integer() {
    json_int_t number = 0;
    const char* const begin = rest_.data();
    const auto [end, error] = std::from_chars(begin, begin + rest_.size(), number);
    const std::string_view digits(ahead('-') ? begin + 1 : begin, end);
    if (error != std::errc{} || (digits.size() > 1 && digits.front() == '0')) return {};
    rest_.remove_prefix(static_cast<std::size_t>(end - begin));
    if (ahead('.') || ahead('e') || ahead('E')) return {};
    return json_ptr(json_integer(number));
  }

  std::string_view rest_;
};

}  // namespace

json_t* read_document(std::string_view text) {
  json_ptr plain = plain_reader(text).document();
  return plain ? plain.release() : json_loadb(text.data(), text.size(), 0, nullptr);
}

}  // namespace tarvex::rest
