#pragma once

#include <boost/asio/awaitable.hpp>

#include <string>

namespace tarvex::server {

class session;

/// Runs one FTP command and answers it. The argument is what stands behind the verb and a blank; empty: nothing.
using command_handler = boost::asio::awaitable<void> (*)(session& client, std::string argument);

using handled = boost::asio::awaitable<void>;

// login
handled command_user(session& client, std::string argument);
handled command_pass(session& client, std::string argument);
handled command_host(session& client, std::string argument);
handled command_clnt(session& client, std::string argument);
handled command_quit(session& client, std::string argument);

// protection
handled command_auth(session& client, std::string argument);
handled command_pbsz(session& client, std::string argument);
handled command_prot(session& client, std::string argument);
handled command_ccc(session& client, std::string argument);

// reinitialise
handled command_rein(session& client, std::string argument);

// language
handled command_lang(session& client, std::string argument);

// settings
handled command_noop(session& client, std::string argument);
handled command_syst(session& client, std::string argument);
handled command_help(session& client, std::string argument);
handled command_feat(session& client, std::string argument);
handled command_opts(session& client, std::string argument);
handled command_type(session& client, std::string argument);
handled command_stru(session& client, std::string argument);
handled command_allo(session& client, std::string argument);
handled command_storattr(session& client, std::string argument);

// connection
handled command_pasv(session& client, std::string argument);
handled command_epsv(session& client, std::string argument);
handled command_port(session& client, std::string argument);
handled command_eprt(session& client, std::string argument);
handled command_spas(session& client, std::string argument);
handled command_spor(session& client, std::string argument);

// namespace
handled command_pwd(session& client, std::string argument);
handled command_cwd(session& client, std::string argument);
handled command_cdup(session& client, std::string argument);
handled command_size(session& client, std::string argument);
handled command_mdtm(session& client, std::string argument);
handled command_mlst(session& client, std::string argument);

// listing
handled command_list(session& client, std::string argument);
handled command_nlst(session& client, std::string argument);
handled command_mlsd(session& client, std::string argument);

// status
handled command_stat(session& client, std::string argument);

// change
handled command_mkd(session& client, std::string argument);
handled command_rmd(session& client, std::string argument);
handled command_dele(session& client, std::string argument);
handled command_rnfr(session& client, std::string argument);
handled command_rnto(session& client, std::string argument);

// site
handled command_site(session& client, std::string argument);

// checksum
handled command_cksm(session& client, std::string argument);
handled command_hash(session& client, std::string argument);
handled command_xcrc(session& client, std::string argument);
handled command_xmd5(session& client, std::string argument);
handled command_xsha1(session& client, std::string argument);
handled command_xsha256(session& client, std::string argument);

// extended
handled command_mode(session& client, std::string argument);
handled command_rest(session& client, std::string argument);
handled command_dcau(session& client, std::string argument);
handled command_sbuf(session& client, std::string argument);

// retrieve, store
handled command_retr(session& client, std::string argument);
handled command_eret(session& client, std::string argument);
handled command_stor(session& client, std::string argument);
handled command_esto(session& client, std::string argument);
handled command_appe(session& client, std::string argument);
handled command_abor(session& client, std::string argument);

}  // namespace tarvex::server
