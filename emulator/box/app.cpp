#include "box/app.h"

#include "base/json.h"
#include "base/text.h"
#include "box/redirect.h"

#include <algorithm>

namespace tarvex::emulator {
namespace {

constexpr std::string_view APP_MEMBERS =
    "client_id client_secret name redirect_uris public_keys enterprise_id authorised";

/// A misspelt member would make another app than the one that was meant.
std::string unknown_app_member(const json_t* object) {
  const auto known = split(APP_MEMBERS, ' ');
  const char* key = nullptr;
  json_t* value = nullptr;
  json_object_foreach(const_cast<json_t*>(object), key, value) {
    if (std::find(known.begin(), known.end(), key) == known.end()) return key;
  }
  return {};
}

/// An array member; null when it is absent. `wrong` when it is something else.
const json_t* array_at(const json_t* object, const char* key, bool& wrong) {
  const json_t* value = json_object_get(object, key);
  wrong = wrong || (value != nullptr && !json_is_array(value));
  return value;
}

std::string read_redirects(const json_t* list, app& into) {
  std::size_t index = 0;
  const json_t* value = nullptr;
  json_array_foreach(list, index, value) {
    const std::string address = json_is_string(value) ? json_string_value(value) : "";
    if (!redirect_is_address(address)) return "'" + address + "' is no redirect address, such as http://127.0.0.1/back";
    into.redirect_uris.push_back(address);
  }
  return {};
}

std::string read_keys(const json_t* list, app& into) {
  std::size_t index = 0;
  const json_t* value = nullptr;
  json_array_foreach(list, index, value) {
    app_key read{json_text_at(value, "kid").value_or(""), nullptr};
    const auto pem = json_text_at(value, "pem");
    if (read.id.empty() || !pem) return "a public key is {\"kid\": text, \"pem\": text}";
    if (const std::string why = public_key_read(*pem, read.key); !why.empty()) return "key " + read.id + ": " + why;
    into.keys.push_back(std::move(read));
  }
  return {};
}

}  // namespace

bool app::has_secret(std::string_view secret) const {
  return registered ? secret == client_secret : !secret.empty();
}

bool app::redirects_to(std::string_view address) const {
  if (!redirect_is_address(address)) return false;
  return !registered || std::any_of(redirect_uris.begin(), redirect_uris.end(),
                                    [&](const std::string& known) { return redirect_matches(known, address); });
}

std::string app_parse(const json_t* object, app& into) {
  if (!json_is_object(object)) return "an app must be an object";
  if (const std::string name = unknown_app_member(object); !name.empty())
    return "unknown member '" + name + "' of an app";
  into.registered = true;
  into.client_id = json_text_at(object, "client_id").value_or("");
  into.client_secret = json_text_at(object, "client_secret").value_or("");
  if (into.client_id.empty() || into.client_secret.empty()) return "an app has a client_id and a client_secret";
  into.name = json_text_at(object, "name").value_or(into.client_id);
  into.enterprise_id = json_text_at(object, "enterprise_id").value_or("");
  const json_t* authorised = json_object_get(object, "authorised");
  bool wrong = authorised != nullptr && !json_is_boolean(authorised);
  into.authorised = !json_is_false(authorised);
  const json_t* redirects = array_at(object, "redirect_uris", wrong);
  const json_t* keys = array_at(object, "public_keys", wrong);
  if (wrong) return "redirect_uris and public_keys are arrays, authorised is true or false";
  if (std::string refusal = read_redirects(redirects, into); !refusal.empty()) return refusal;
  return read_keys(keys, into);
}

std::string app_help() {
  return "An app is an object, a file may have an array of them:\n"
         "  client_id, client_secret         must come with each token request; anything else is invalid_client\n"
         "  name                             on the consent page (the client_id)\n"
         "  redirect_uris                    array of addresses, matched letter for letter; http on a loopback host "
         "with any port\n"
         "  enterprise_id                    subject of enterprise tokens, which open a service account of the app's "
         "own\n"
         "  public_keys                      [{\"kid\", \"pem\"}]: RSA keys of its JWT assertions\n"
         "  authorised                       false: unauthorized_client, as before an admin's consent (true)\n"
         "Without any app, every client id with any secret is taken, with any redirect address; signatures of JWT are "
         "not checked, and enterprise tokens open the first account.\n";
}

}  // namespace tarvex::emulator
