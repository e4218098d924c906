#include "base/settings.h"

#include "base/json.h"
#include "base/setting_row.h"
#include "base/text.h"

#include <algorithm>
#include <sstream>

namespace tarvex::emulator {
namespace {

/// Puts a text into a member of whatever kind; returns the refusal.
struct assign {
  settings& values;
  const setting_row& to;
  std::string_view text;

  std::string operator()(std::int64_t settings::*place) const {
    const auto number = number_of(text);
    if (!number) return "setting " + std::string(to.name) + " wants a whole number, not '" + std::string(text) + "'";
    if (*number < to.least) return "setting " + std::string(to.name) + " wants at least " + std::to_string(to.least);
    values.*place = *number;
    return {};
  }
  std::string operator()(double settings::*place) const {
    // Through JSON's grammar, which knows no locale and no "nan".
    const json_ptr number = json_parse(text);
    const double value = json_is_number(number.get()) ? json_number_value(number.get()) : -1;
    if (value < 0 || value > 1) return "setting " + std::string(to.name) + " wants a probability from 0 to 1";
    values.*place = value;
    return {};
  }
  std::string operator()(bool settings::*place) const {
    if (text != "true" && text != "false") return "setting " + std::string(to.name) + " wants true or false";
    values.*place = text == "true";
    return {};
  }
  std::string operator()(std::string settings::*place) const {
    const bool is_list = to.choices.find(',') != std::string_view::npos;
    const auto choices = split(to.choices, is_list ? ',' : '|');
    const auto wanted = is_list ? split(text, ',') : std::vector{text};
    const bool known = std::all_of(wanted.begin(), wanted.end(), [&](std::string_view each) {
      return std::find(choices.begin(), choices.end(), each) != choices.end();
    });
    if (!to.choices.empty() && !known && !(is_list && text.empty())) {
      return "setting " + std::string(to.name) + (is_list ? " wants some of " : " wants one of ") +
             std::string(to.choices);
    }
    values.*place = text;
    return {};
  }
};

struct show {
  const settings& values;
  json_ptr operator()(std::int64_t settings::*place) const { return json_ptr(json_integer(values.*place)); }
  json_ptr operator()(double settings::*place) const { return json_ptr(json_real(values.*place)); }
  json_ptr operator()(bool settings::*place) const { return json_ptr(json_boolean(values.*place)); }
  json_ptr operator()(std::string settings::*place) const { return json_string_of(values.*place); }
};

/// A setting in JSON may come as a number, as true, or as the text that the command line would take.
std::string text_of(const json_t* value) {
  if (json_is_string(value)) return json_string_value(value);
  return json_text(value);
}

}  // namespace

std::string settings_set(settings& values, std::string_view name, std::string_view text) {
  for (const setting_row& candidate : setting_rows()) {
    if (candidate.name == name) return std::visit(assign{values, candidate, text}, candidate.place);
  }
  return "unknown setting '" + std::string(name) + "'; --help lists them";
}

std::string settings_apply(settings& values, const json_t* object) {
  if (!json_is_object(object)) return "settings must be an object of names and values";
  const char* name = nullptr;
  json_t* value = nullptr;
  json_object_foreach(const_cast<json_t*>(object), name, value) {
    if (std::string refusal = settings_set(values, name, text_of(value)); !refusal.empty()) return refusal;
  }
  return {};
}

json_ptr settings_json(const settings& values) {
  json_ptr all(json_object());
  for (const setting_row& each : setting_rows()) {
    json_put(all.get(), std::string(each.name).c_str(), std::visit(show{values}, each.place));
  }
  return all;
}

std::string settings_help() {
  std::ostringstream text;
  const settings defaults;
  for (const setting_row& line : setting_rows()) {
    text << "  " << line.name << '=' << text_of(std::visit(show{defaults}, line.place).get()) << "\n      "
         << line.help;
    if (!line.choices.empty()) text << " (" << line.choices << ')';
    text << '\n';
  }
  return text.str();
}

}  // namespace tarvex::emulator
