#pragma once

#include "tarvex_common.hpp"

#include <curl/curl.h>

namespace tarvex::rest {

using easy_ptr = owner<CURL, curl_easy_cleanup>;
using multi_ptr = owner<CURLM, curl_multi_cleanup>;
using url_ptr = owner<CURLU, curl_url_cleanup>;
using list_ptr = owner<curl_slist, curl_slist_free_all>;
using curl_string = owner<char, curl_free>;

}  // namespace tarvex::rest
