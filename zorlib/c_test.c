/* An application in C: it opens a group, writes frames, reads them back and cleans up. Exit status
 * 0, or the number of the line that failed. */
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "zorlib/zorlib.h"

#define CHECK(condition)                                      \
  do {                                                        \
    if (!(condition)) {                                       \
      fprintf(stderr, "line %d: %s\n", __LINE__, #condition); \
      return 1;                                               \
    }                                                         \
  } while (0)

int main(void) {
  zorlib_ifg* ifg = NULL;
  zorlib_q* reader = NULL;
  zorlib_q* writer = NULL;
  CHECK(zorlib_ifg_open("brund", &ifg) == 0);
  CHECK(zorlib_ifg_create_q_app(ifg, "c_app", ZORVIK_Q_APP, 16) == 0);
  CHECK(zorlib_q_app_open(ifg, "c_app", ZORLIB_READ, &reader) == 0);
  CHECK(zorlib_q_app_open(ifg, "c_app", ZORLIB_WRITE, &writer) == 0);
  CHECK(zorlib_q_set_timeout(reader, 0) == 0);

  for (uint32_t i = 0; i < 10; ++i) {
    struct zorvik_frm_desc* frame = NULL;
    char message[16];
    CHECK(zorlib_batch_alloc(ifg, sizeof message, &frame, 1) == 1);
    uint8_t* const data = zorlib_ifg_frm_data(ifg, frame);
    CHECK(data != NULL);
    snprintf(message, sizeof message, "frame %u", i);
    memcpy(data, message, sizeof message);
    frame->wire_len = frame->cap_len = sizeof message;
    frame->frame_size = sizeof message;
    frame->tag = i;
    CHECK(zorlib_q_write(writer, frame) == 0);
  }
  for (uint32_t i = 0; i < 10; ++i) {
    struct zorvik_frm_desc* frame = NULL;
    char expected[16];
    CHECK(zorlib_q_read(reader, &frame) == 0);
    CHECK(frame->tag == i);
    const uint8_t* const data = zorlib_q_frm_data(reader, frame);
    snprintf(expected, sizeof expected, "frame %u", i);
    CHECK(data != NULL && strcmp((const char*)data, expected) == 0);
    CHECK(zorlib_frm_free(ifg, frame) == 0);
  }
  struct zorvik_frm_desc* none = NULL;
  CHECK(zorlib_q_read(reader, &none) == -1 && errno == EAGAIN && none == NULL);

  struct zorvik_ifg_enum groups;
  CHECK(zorlib_ifg_enum(&groups) == 0 && groups.count == 1);
  CHECK(strcmp(groups.records[0].name, "brund") == 0);
  CHECK(strcmp(groups.records[1].name, ZORVIK_IFG_NIL_NAME) == 0);
  struct zorvik_ifg_stats stats;
  CHECK(zorlib_ifg_get_stats(ifg, &stats) == 0 && stats.frm_count == 64);
  CHECK(stats.frm_frees == 10 && stats.frm_allocs - stats.frm_frees == 64 - stats.frm_free);
  struct zorlib_ifg_info info;
  CHECK(zorlib_ifg_query(ifg, &info) == 0 && info.num_ifs == 0);

  CHECK(zorlib_set_param("zorvik.brund.c_app.q_size", "100") == 0);
  CHECK(zorlib_ifg_lookup_qsize(ifg, "c_app") == 100);
  CHECK(zorlib_q_close(writer) == 0);
  CHECK(zorlib_q_close(reader) == 0);
  CHECK(zorlib_ifg_remove_q_app(ifg, "c_app") == 0);
  CHECK(zorlib_ifg_close(ifg) == 0);
  return 0;
}
