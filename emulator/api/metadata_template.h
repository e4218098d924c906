#pragma once

#include "api/call.h"

#include <optional>

namespace tarvex::emulator {

/// The scope of templates that the account's enterprise makes, as its answers name it.
inline constexpr std::string_view ENTERPRISE_SCOPE = "enterprise_1";

/// "global" and the enterprise's scope by either of its names ("enterprise", "enterprise_1"); nothing for others.
[[nodiscard]] std::optional<std::string> metadata_scope(std::string_view given);

/// A template as Box shows it; null when there is none. The one of the global scope is `properties`.
[[nodiscard]] json_ptr metadata_template_json(const call& of, const std::string& scope, const std::string& key);

/// What a value breaks of its template's rules; an empty text for a good one.
[[nodiscard]] std::string metadata_value_refusal(const json_t* shape, const char* key, const json_t* value);

/// GET of one by scope and key, or by id; GET of those of a scope; POST and DELETE of the enterprise's.
[[nodiscard]] response metadata_template_get(call& of);
[[nodiscard]] response metadata_template_by_id(call& of);
[[nodiscard]] response metadata_templates_global(call& of);
[[nodiscard]] response metadata_templates_enterprise(call& of);
[[nodiscard]] response metadata_template_create(call& of);
[[nodiscard]] response metadata_template_delete(call& of);

}  // namespace tarvex::emulator
