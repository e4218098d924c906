#include "command/table.h"

#include "base/text.h"

#include <algorithm>
#include <array>

namespace tarvex::server {

namespace {

constexpr auto ANYONE = command_access::anyone;
constexpr auto LOGGED_IN = command_access::logged_in;
constexpr auto FULL = account_permissions::full;
constexpr auto NONE = command_argument::none;
constexpr auto OPTIONAL = command_argument::optional;
constexpr auto REQUIRED = command_argument::required;

constexpr std::string_view LIST_FORM = "[-options] [--] [path]";
constexpr std::string_view X_FORM = "path, or \"path\" [start [end]] (end not included)";

//   verb, handler, access, permissions, argument, keeps REST, during an operation, help
constexpr auto ROWS = std::to_array<command_row>({
    {"ABOR", command_abor, LOGGED_IN, EVERYBODY, NONE, false, false, ""},
    {"ALLO", command_allo, LOGGED_IN, EVERYBODY, REQUIRED, true, false, "size in bytes [R size of a record]"},
    {"APPE", command_appe, LOGGED_IN, FULL_ONLY, REQUIRED, true, false, "path; refused: nothing can be appended"},
    {"AUTH", command_auth, ANYONE, EVERYBODY, REQUIRED, true, false, "TLS"},
    {"CCC", command_ccc, ANYONE, EVERYBODY, NONE, true, false, "refused: commands stay protected"},
    {"CDUP", command_cdup, LOGGED_IN, EVERYBODY, NONE, false, false, ""},
    {"CKSM", command_cksm, LOGGED_IN, READERS, REQUIRED, false, false,
     "algorithm offset length path (length -1: to the end)"},
    {"CLNT", command_clnt, ANYONE, EVERYBODY, OPTIONAL, false, false, "name of the client"},
    {"CWD", command_cwd, LOGGED_IN, EVERYBODY, REQUIRED, false, false, "path"},
    {"DCAU", command_dcau, LOGGED_IN, EVERYBODY, REQUIRED, true, false, "N | A | S subject"},
    {"DELE", command_dele, LOGGED_IN, FULL_ONLY, REQUIRED, false, false, "path of a file"},
    {"EPRT", command_eprt, LOGGED_IN, EVERYBODY, REQUIRED, true, false, "|1 or 2|address|port|"},
    {"EPSV", command_epsv, LOGGED_IN, EVERYBODY, OPTIONAL, true, false, "[1 | 2 | ALL]"},
    {"ERET", command_eret, LOGGED_IN, READERS, REQUIRED, true, false, "P offset length path (length -1: to the end)"},
    {"ESTO", command_esto, LOGGED_IN, UPLOADERS, REQUIRED, true, false, "A offset path"},
    {"FEAT", command_feat, ANYONE, EVERYBODY, NONE, false, false, ""},
    {"HASH", command_hash, LOGGED_IN, READERS, REQUIRED, false, false, "path"},
    {"HELP", command_help, ANYONE, EVERYBODY, OPTIONAL, false, false, "[command]"},
    {"HOST", command_host, ANYONE, EVERYBODY, REQUIRED, false, false, "host name"},
    {"LANG", command_lang, ANYONE, EVERYBODY, OPTIONAL, true, false, "[language tag]"},
    {"LIST", command_list, LOGGED_IN, READERS, OPTIONAL, false, false, LIST_FORM},
    {"MDTM", command_mdtm, LOGGED_IN, READERS, REQUIRED, false, false, "path"},
    {"MKD", command_mkd, LOGGED_IN, UPLOADERS, REQUIRED, false, false, "path"},
    {"MLSD", command_mlsd, LOGGED_IN, READERS, OPTIONAL, false, false, "[path of a folder]"},
    {"MLST", command_mlst, LOGGED_IN, READERS, OPTIONAL, false, false, "[path]"},
    {"MODE", command_mode, LOGGED_IN, EVERYBODY, REQUIRED, true, false, "S | E"},
    {"NLST", command_nlst, LOGGED_IN, READERS, OPTIONAL, false, false, LIST_FORM},
    {"NOOP", command_noop, ANYONE, EVERYBODY, OPTIONAL, true, true, ""},
    {"OPTS", command_opts, ANYONE, EVERYBODY, REQUIRED, true, false,
     "UTF8 ON | MLST fact;fact; | HASH [algorithm] | RETR Parallelism=start,least,most;BlockSize=bytes;"},
    {"PASS", command_pass, ANYONE, EVERYBODY, OPTIONAL, false, false, "password"},
    {"PASV", command_pasv, LOGGED_IN, EVERYBODY, NONE, true, false, ""},
    {"PBSZ", command_pbsz, ANYONE, EVERYBODY, REQUIRED, true, false, "0"},
    {"PORT", command_port, LOGGED_IN, EVERYBODY, REQUIRED, true, false, "h1,h2,h3,h4,p1,p2"},
    {"PROT", command_prot, ANYONE, EVERYBODY, REQUIRED, true, false, "C | P"},
    {"PWD", command_pwd, LOGGED_IN, EVERYBODY, NONE, false, false, ""},
    {"QUIT", command_quit, ANYONE, EVERYBODY, NONE, false, false, ""},
    {"REIN", command_rein, ANYONE, EVERYBODY, NONE, false, false, ""},
    {"REST", command_rest, LOGGED_IN, EVERYBODY, REQUIRED, true, false, "offset in bytes | begin-end,begin-end"},
    {"RETR", command_retr, LOGGED_IN, READERS, REQUIRED, true, false, "path"},
    {"RMD", command_rmd, LOGGED_IN, FULL_ONLY, REQUIRED, false, false, "path of an empty folder"},
    {"RNFR", command_rnfr, LOGGED_IN, FULL_ONLY, REQUIRED, false, false, "path"},
    {"RNTO", command_rnto, LOGGED_IN, FULL_ONLY, REQUIRED, false, false, "path"},
    {"SBUF", command_sbuf, LOGGED_IN, EVERYBODY, REQUIRED, true, false,
     "size in bytes of the buffers of data connections"},
    {"SITE", command_site, LOGGED_IN, EVERYBODY, REQUIRED, false, false,
     "word and what it takes; SITE HELP lists them"},
    {"SIZE", command_size, LOGGED_IN, READERS, REQUIRED, false, false, "path"},
    {"SPAS", command_spas, LOGGED_IN, EVERYBODY, NONE, true, false, ""},
    {"SPOR", command_spor, LOGGED_IN, EVERYBODY, REQUIRED, true, false, "h1,h2,h3,h4,p1,p2 [h1,h2,h3,h4,p1,p2 ...]"},
    {"STAT", command_stat, LOGGED_IN, READERS, OPTIONAL, true, true, LIST_FORM},
    {"STOR", command_stor, LOGGED_IN, UPLOADERS, REQUIRED, true, false, "path"},
    {"STORATTR", command_storattr, LOGGED_IN, UPLOADERS, REQUIRED, true, false, "modify=YYYYMMDDHHMMSS;"},
    {"STRU", command_stru, LOGGED_IN, EVERYBODY, REQUIRED, true, false, "F"},
    {"SYST", command_syst, ANYONE, EVERYBODY, NONE, false, false, ""},
    {"TYPE", command_type, LOGGED_IN, EVERYBODY, REQUIRED, true, false, "A | I | L 8"},
    {"USER", command_user, ANYONE, EVERYBODY, REQUIRED, false, false, "login name"},
    {"XCRC", command_xcrc, LOGGED_IN, READERS, REQUIRED, false, false, X_FORM},
    {"XCUP", command_cdup, LOGGED_IN, EVERYBODY, NONE, false, false, ""},
    {"XCWD", command_cwd, LOGGED_IN, EVERYBODY, REQUIRED, false, false, "path"},
    {"XMD5", command_xmd5, LOGGED_IN, READERS, REQUIRED, false, false, X_FORM},
    {"XMKD", command_mkd, LOGGED_IN, UPLOADERS, REQUIRED, false, false, "path"},
    {"XPWD", command_pwd, LOGGED_IN, EVERYBODY, NONE, false, false, ""},
    {"XRMD", command_rmd, LOGGED_IN, FULL_ONLY, REQUIRED, false, false, "path of an empty folder"},
    {"XSHA1", command_xsha1, LOGGED_IN, READERS, REQUIRED, false, false, X_FORM},
    {"XSHA256", command_xsha256, LOGGED_IN, READERS, REQUIRED, false, false, X_FORM},
});

static_assert(std::ranges::all_of(ROWS, [](const command_row& row) { return row.permitted.holds(FULL); }),
              "an account without limits may run every command");

}  // namespace

std::span<const command_row> command_rows() {
  return ROWS;
}

const command_row* command_find(std::string_view verb) {
  const auto row = std::find_if(ROWS.begin(), ROWS.end(),
                                [verb](const command_row& candidate) { return same_word(candidate.verb, verb); });
  return row == ROWS.end() ? nullptr : &*row;
}

}  // namespace tarvex::server
