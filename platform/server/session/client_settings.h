#pragma once

#include "ftp/facts.h"
#include "ftp/file_ranges.h"

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>

namespace tarvex::server {

/// What the client has set with commands.
struct client_settings {
  std::string directory = "/";
  bool epsv_only = false;
  file_ranges held;                    ///< of the next transfer, what the receiver has already (REST)
  std::uint64_t announced_size = 0;    ///< of the next store; 0: none
  std::time_t modification_time = -1;  ///< of the next stored file; -1: none
  std::string rename_from;             ///< of an RNFR just before; empty: none
  std::string hash_algorithm = "SHA1";
  facts_mask mlst_facts = ALL_FACTS;
  bool block_mode = false;                       ///< MODE E
  unsigned retrieve_connections = 1;             ///< of a download in extended block mode
  std::size_t retrieve_block_bytes = 256 << 10;  ///< of its blocks
  bool protection_buffer_told = false;           ///< PBSZ was sent, without which there is no PROT
};

}  // namespace tarvex::server
