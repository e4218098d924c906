#pragma once

#include <string>

namespace tarvex::server {

struct session;

// Login.
void command_user(session& session, const std::string& argument);
void command_pass(session& session, const std::string& argument);
void command_host(session& session, const std::string& argument);
void command_clnt(session& session, const std::string& argument);
void command_quit(session& session, const std::string& argument);

// Settings and information.
void command_noop(session& session, const std::string& argument);
void command_syst(session& session, const std::string& argument);
void command_help(session& session, const std::string& argument);
void command_feat(session& session, const std::string& argument);
void command_opts(session& session, const std::string& argument);
void command_type(session& session, const std::string& argument);
void command_mode(session& session, const std::string& argument);
void command_stru(session& session, const std::string& argument);

// Data connections.
void command_pasv(session& session, const std::string& argument);
void command_epsv(session& session, const std::string& argument);
void command_port(session& session, const std::string& argument);
void command_eprt(session& session, const std::string& argument);

// Names and attributes.
void command_pwd(session& session, const std::string& argument);
void command_cwd(session& session, const std::string& argument);
void command_cdup(session& session, const std::string& argument);
void command_size(session& session, const std::string& argument);
void command_mdtm(session& session, const std::string& argument);
void command_mlst(session& session, const std::string& argument);

// Listings.
void command_list(session& session, const std::string& argument);
void command_nlst(session& session, const std::string& argument);
void command_mlsd(session& session, const std::string& argument);
void command_stat(session& session, const std::string& argument);

// Changes.
void command_mkd(session& session, const std::string& argument);
void command_rmd(session& session, const std::string& argument);
void command_dele(session& session, const std::string& argument);
void command_rnfr(session& session, const std::string& argument);
void command_rnto(session& session, const std::string& argument);
void command_site(session& session, const std::string& argument);

// Checksums.
void command_cksm(session& session, const std::string& argument);
void command_hash(session& session, const std::string& argument);
void command_xcrc(session& session, const std::string& argument);
void command_xmd5(session& session, const std::string& argument);
void command_xsha1(session& session, const std::string& argument);
void command_xsha256(session& session, const std::string& argument);

// Transfers.
void command_rest(session& session, const std::string& argument);
void command_retr(session& session, const std::string& argument);
void command_stor(session& session, const std::string& argument);
void command_appe(session& session, const std::string& argument);
void command_allo(session& session, const std::string& argument);
void command_storattr(session& session, const std::string& argument);
void command_abor(session& session, const std::string& argument);

}  // namespace tarvex::server
