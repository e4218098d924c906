#pragma once

#include "ftp/facts.h"

#include <cstdint>
#include <ctime>
#include <string>

namespace tarvex::server {

/// What the client has set with commands.
struct client_settings {
  std::string directory = "/";
  bool epsv_only = false;
  std::int64_t restart_offset = 0;
  std::uint64_t announced_size = 0;    ///< of the next store; 0: none
  std::time_t modification_time = -1;  ///< of the next stored file; -1: none
  std::string rename_from;             ///< of an RNFR just before; empty: none
  std::string hash_algorithm = "SHA1";
  facts_mask mlst_facts = ALL_FACTS;
  bool protection_buffer_told = false;  ///< PBSZ was sent, without which there is no PROT
};

}  // namespace tarvex::server
