/* The public headers are plain C, and a C program can use them. */

#include "tarvex_common.h"
#include "tarvex_dsi_rest.h"
#include "tarvex_gridftp_server.h"

#include <stdlib.h>
#include <string.h>

int c_face_error_round_trip(void) {
  tarvex_object_t* cause = tarvex_error_construct_error(NULL, NULL, 1, __FILE__, __func__, __LINE__, "%d of %d", 1, 2);
  tarvex_result_t result =
      tarvex_error_put(tarvex_error_construct_error(NULL, cause, 2, __FILE__, __func__, __LINE__, "outer"));
  char* text = tarvex_error_print_chain(tarvex_error_peek(result));
  int same = text != NULL && strcmp(text, "outer\n1 of 2") == 0;
  free(text);
  tarvex_result_release(result);
  return same;
}

int c_face_uuids_differ(void) {
  tarvex_uuid_t one;
  tarvex_uuid_t two;
  return tarvex_uuid_create(&one) == 0 && tarvex_uuid_create(&two) == 0 && strlen(one.text) == 36 &&
         one.text[14] == '4' && strcmp(one.text, two.text) != 0;
}
