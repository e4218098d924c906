/* The public headers are plain C, and a C program can use them. */

#include "tarvex_common.h"
#include "tarvex_dsi_rest.h"
#include "tarvex_gridftp_server.h"

#include <ctype.h>
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

/* 8-4-4-4-12 lower-case hexadecimal digits, version 4, variant 8, 9, a or b. */
int c_face_uuid_is_version_4(void) {
  static const char form[] = "xxxxxxxx-xxxx-4xxx-Vxxx-xxxxxxxxxxxx";
  tarvex_uuid_t uuid;
  if (tarvex_uuid_create(&uuid) != 0 || strlen(uuid.text) != strlen(form)) return 0;
  for (size_t i = 0; form[i] != 0; ++i) {
    const char c = uuid.text[i];
    if (form[i] == 'x'   ? !isxdigit((unsigned char)c) || isupper((unsigned char)c)
        : form[i] == 'V' ? strchr("89ab", c) == NULL
                         : c != form[i])
      return 0;
  }
  return 1;
}
