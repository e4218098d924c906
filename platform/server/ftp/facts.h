#pragma once

#include "tarvex_gridftp_server.h"

#include <string>
#include <string_view>

namespace tarvex::server {

/// A choice of facts of MLST and MLSD (RFC 3659 section 7.5): bit 0 is type, then size, modify, perm, UNIX.mode and
/// unique. Bits beyond these mean nothing.
using facts_mask = unsigned;
constexpr facts_mask ALL_FACTS = ~0U;

/// "type*;size;...": every fact, the chosen ones starred, as FEAT shows them (RFC 3659 section 7.8).
[[nodiscard]] std::string facts_starred(facts_mask chosen);

/// The choice that "type;size;" makes, case not mattering; names of other facts are passed over (RFC 3659
/// section 7.9).
[[nodiscard]] facts_mask facts_parse(std::string_view names);

/// "type;size;": the chosen facts, as the reply to OPTS MLST repeats them; empty when none is.
[[nodiscard]] std::string facts_chosen(facts_mask chosen);

/// Appends the chosen facts of an item, each as "name=value;". Folders have no size; negative sizes count as 0.
/// \param name  of the item; "." makes a folder a cdir
void facts_append(const tarvex_gridftp_server_control_stat_t& stat, std::string_view name, facts_mask chosen,
                  std::string& out);

}  // namespace tarvex::server
