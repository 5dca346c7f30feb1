/* zorlib.h - the frame library: an application's access to the interface groups, queues and
 * frames of the zorvik driver. C11 and C++.
 *
 * Functions return 0, or -1 with errno and a syslog line, unless they say otherwise. A handle
 * that is null or no longer valid fails with EBADR, any other pointer that is null where one is
 * needed with EINVAL and without a line. Handles may be used by several threads
 * unless a function says otherwise; closing one while another thread uses it is an error.
 * zorlib_q_set_timeout, zorlib_q_frm_data, zorlib_q_room and zorlib_q_used do not check the
 * handle, nor does the second the frame.
 */
#ifndef ZORLIB_H
#define ZORLIB_H

#include <stdint.h>

#include "zorlib/zorvik_layout.h"

#ifdef __cplusplus
extern "C" {
#endif

/* An open interface group, and an open queue of one. Opaque; owned by the caller, who closes
 * them. A queue holds a reference on its group: either may be closed first. */
typedef struct zorlib_ifg zorlib_ifg;
typedef struct zorlib_q zorlib_q;

enum { ZORLIB_READ = 0, ZORLIB_WRITE = 1 };

/* ---- Interface groups -------------------------------------------------------------------*/

/* Opens the group `name` (1 to 16 characters, else, or null, ENAMETOOLONG). *ifg is set on success
 * only. */
int zorlib_ifg_open(const char* name, zorlib_ifg** ifg);

/* The first half of zorlib_ifg_open: a handle on which only the driver's control node is open.
 * Null with errno on failure. */
zorlib_ifg* zorlib_ifg_alloc(const char* name);

/* Gives a reference back; the last one returns cached frames to the driver, closes the nodes,
 * unmaps the frame memory and frees the handle. */
int zorlib_ifg_close(zorlib_ifg* ifg);

/* Waits up to 1.5 s until the node at `path` is there (appear 1) or gone (appear 0). */
int zorlib_ifg_devnode_wait(const char* path, int appear);

/* Maps the group's descriptors and the payload memory, once a handle, and takes a reference
 * (given back with zorlib_ifg_close). Sizes in bytes. */
int zorlib_map_frm_data(zorlib_ifg* ifg, struct zorvik_frm_desc** frmDesc, uint32_t* frmDescSize,
                        uint8_t** payload, uint32_t* payloadSize);

/* The group's queues, in a buffer that the caller frees with free(3). */
int zorlib_ifg_q_enum(zorlib_ifg* ifg, struct zorvik_q_enum** list);

/* Removes queue `id`; EBUSY while it is open somewhere. */
int zorlib_ifg_q_remove(zorlib_ifg* ifg, uint32_t id);

/* The group's interfaces. */
struct zorlib_ifg_info {
  uint32_t num_ifs;
  struct zorvik_if_record ifs[ZORVIK_IF_MAX];
};
typedef struct zorlib_ifg_info zorlib_ifg_info;
int zorlib_ifg_query(zorlib_ifg* ifg, zorlib_ifg_info* info);

/* Reads the group's 64 flag bits. */
int zorlib_ifg_get_flags(zorlib_ifg* ifg, uint64_t* flags);

/* Sets them. 0 even when the driver refused, which only the log tells. */
int zorlib_ifg_set_flags(zorlib_ifg* ifg, uint64_t flags);

/* Clear, or set, bit 0 of the flags and leave the others. */
int zorlib_ifg_disable(zorlib_ifg* ifg);
int zorlib_ifg_enable(zorlib_ifg* ifg);

/* ---- Application queues -----------------------------------------------------------------*/

/* Creates the queue `name` (at most 16 characters) of `type` 3 to 6 with `size` entries
 * (10 to 16000000; 0: the group's parameters say, else 100000). EEXIST when it is there. */
int zorlib_ifg_create_q_app(zorlib_ifg* ifg, const char* name, uint32_t type, uint32_t size);

/* Issues the create request and waits for the queue's node. The last two are reserved, 0. */
int zorlib_ifg_q_create(zorlib_ifg* ifg, const char* name, uint32_t type, uint32_t size,
                        uint64_t reserved1, uint64_t reserved2);

/* Removes the queue `name` (in any case): ENOENT when there is none, EBUSY while it is open. */
int zorlib_ifg_remove_q_app(zorlib_ifg* ifg, const char* name);

/* Opens the queue `name` as consumer (ZORLIB_READ) or producer (ZORLIB_WRITE) and ends that
 * side's shutdown. Waits have no limit until zorlib_q_set_timeout. */
int zorlib_q_app_open(zorlib_ifg* ifg, const char* name, uint32_t mode, zorlib_q** q);

/* Closes the queue and gives its reference on the group back. */
int zorlib_q_close(zorlib_q* q);

/* Shuts this handle's side of the queue down: every read (or write) of that side, blocked or to
 * come, fails with ESHUTDOWN until the side is opened again. Always 0 for a valid handle. Any
 * thread. */
int zorlib_q_shutdown(zorlib_q* q);

/* Takes the next frame, waiting up to the queue's timeout, or `ms` milliseconds (UINT32_MAX: no
 * limit). The frame is the caller's, to be freed exactly once. EAGAIN when nothing came,
 * ESHUTDOWN, EINTR, ENXIO for an identifier that names no valid frame. *frame is null on
 * failure. The limit is a budget, not a clock: up to 2000 ms it never sleeps. */
int zorlib_q_read(zorlib_q* q, struct zorvik_frm_desc** frame);
int zorlib_q_read_timeout(zorlib_q* q, struct zorvik_frm_desc** frame, uint32_t ms);

/* Puts `frame` on the queue, waiting for room up to the queue's timeout. On success the frame
 * is the consumer's. EAGAIN when there was no room, ESHUTDOWN. */
int zorlib_q_write(zorlib_q* q, struct zorvik_frm_desc* frame);

/* Drops a reference on `frame` and, with the last one, writes it to the egress queue `q`: ENXIO
 * for another queue, ENOSYS for null. */
int zorlib_q_free(zorlib_q* q, struct zorvik_frm_desc* frame);

/* Returns `frame` to the driver's pool. */
int zorlib_frm_free(zorlib_ifg* ifg, struct zorvik_frm_desc* frame);

/* Sets the wait of reads and writes: milliseconds, negative for no limit. Always 0. Not while
 * another thread reads or writes. */
int zorlib_q_set_timeout(zorlib_q* q, int32_t ms);

/* The queue's descriptor, -1 with EBADR or ENOTCONN. Logs nothing. */
int zorlib_q_get_fd(zorlib_q* q);

/* The queue's number of entries. Logs nothing. */
int zorlib_q_get_size(zorlib_q* q, uint32_t* entries);

/* Where the data of `frame` lies in this process, or null when its offset and length reach
 * beyond the payload memory. */
uint8_t* zorlib_q_frm_data(zorlib_q* q, struct zorvik_frm_desc* frame);

/* How many bytes lie from `data`, as zorlib_q_frm_data gave it, to the end of the payload memory:
 * the most that a length from the descriptor may be trusted for. 0 for any other address. */
uint32_t zorlib_q_room(zorlib_q* q, const uint8_t* data);

/* How many frames are in the queue now. */
uint32_t zorlib_q_used(zorlib_q* q);

/* Writes the handle and its queue memory to the log, at debug level above 0. */
void zorlib_q_dump(zorlib_q* q);

/* ---- Frame allocation -------------------------------------------------------------------*/

/* Takes up to `count` frames whose buffers hold `size` bytes; their number, at least 1, or -1:
 * ENOBUFS when the pool is empty, EMSGSIZE when no buffer is that large, ENOTCONN when the group
 * is not mapped (no queue of it was opened). What the driver gives beyond `count` waits in the
 * handle's lists for the next call. */
int zorlib_batch_alloc(zorlib_ifg* ifg, uint32_t size, struct zorvik_frm_desc** frames,
                       uint32_t count);

/* Where a frame's buffer lies in this process, with room for frame->buf_size bytes; null when it
 * does not lie inside the payload memory. The group must be mapped, as it is for whoever has a
 * frame. */
uint8_t* zorlib_ifg_frm_data(zorlib_ifg* ifg, struct zorvik_frm_desc* frame);

/* One such frame, or null with errno. */
struct zorvik_frm_desc* zorlib_ifg_frm_alloc(zorlib_ifg* ifg, uint32_t size);

/* Aborts the process, after two log lines and the call stack on standard error, when the descriptor
 * is not sound: a corrupt one must not reach the driver. The group must be mapped. */
void zorlib_FRM_Vm(zorlib_ifg* ifg, struct zorvik_frm_desc* frame);

/* ---- Making interface groups ------------------------------------------------------------*/

#define ZORLIB_MAX_QPAIRS 32

/* Makes the group `name` with its frame data for the interfaces of `config` (an even number of 2
 * to 32, mated in pairs 0 and 1, 2 and 3, ...), and opens it. EINVAL, ENXIO or EEXIST for a
 * description that is not right, before anything is asked of the driver; EEXIST also when the
 * group is there, EBUSY when another group has one of the interfaces. *ifg is set on success only;
 * a group whose making fails half-way is removed. */
int zorlib_ifg_create(const char* name, const struct zorvik_ifg_config* config, zorlib_ifg** ifg);

/* Gives a group its frame data: as many descriptors as its fd_count parameter says (1000 to
 * 1000000), else 16384. Part of zorlib_ifg_create. */
int zorlib_ifg_create_frm_data(zorlib_ifg* ifg);

/* Puts other interfaces and settings into force, whole or not at all; refuses what
 * zorlib_ifg_create does. Frames that are out keep the numbers of their interfaces. */
int zorlib_ifg_configure(zorlib_ifg* ifg, const struct zorvik_ifg_config* config);

/* Removes the group with its queues and waits until it is gone; ENOENT, EBUSY while a process has
 * a queue of it open, its frame memory mapped, or a handle through which it asked for anything
 * else. A handle that was only opened does not keep the group, and fails once it is gone. */
int zorlib_ifg_remove(const char* name);

/* The driver's groups. Records of none, from list->count on, have the name ZORVIK_IFG_NIL_NAME. */
int zorlib_ifg_enum(struct zorvik_ifg_enum* list);

/* A queue pair's settings, by cfg->index (below ZORLIB_MAX_QPAIRS, else EINVAL). What is 0 when it
 * is set is taken from the parameters q_size, if_mask and cpu_mask, if they give it. */
int zorlib_ifg_set_qpair_cfg(zorlib_ifg* ifg, const struct zorvik_qpair_cfg* cfg);
int zorlib_ifg_get_qpair_cfg(zorlib_ifg* ifg, struct zorvik_qpair_cfg* cfg);

/* The counters of the group's frames. Frames that wait in handles' lists count as given out. */
int zorlib_ifg_get_stats(zorlib_ifg* ifg, struct zorvik_ifg_stats* stats);

/* ---- The host's interfaces and the driver's log -----------------------------------------*/

struct zorlib_if {
  uint32_t index; /* the kernel's */
  uint32_t flags; /* IFF_... */
  char name[16];
  uint8_t ha[8];   /* the first bytes of the link-layer address */
  uint32_t ha_len; /* how many, at most 8 */
};

/* The host's interfaces but for the loopback; the number stored, at most `capacity`. */
int zorlib_if_enum(struct zorlib_if* list, uint32_t capacity);

/* What the driver logs, a bit each; the last two change only the bits given. */
int zorlib_get_logging_mask(uint64_t* mask);
int zorlib_set_logging_mask(uint64_t mask);
int zorlib_add_logging(uint64_t bits);
int zorlib_del_logging(uint64_t bits);

/* ---- Parameters -------------------------------------------------------------------------
 * A process-wide list of name/value pairs, which the library looks at where the caller gives no
 * number of its own. Names are words parted by dots under "zorvik.", in any case:
 *   zorvik.(group).q_size           a number
 *   zorvik.(group).(queue).q_size   a number; the queue "appq" stands for every application queue
 *   zorvik.(group).fd_count         a number
 *   zorvik.(group).(n).cpu_mask     hexadecimal
 *   zorvik.(group).(n).if_mask      hexadecimal
 */

/* What a name's word must be: anything, a number, or else the word itself in any case. */
#define ZORLIB_WORD_ANY ((const char*)0)
#define ZORLIB_WORD_NUMBER ((const char*)1)

enum {
  ZORLIB_VALUE_NUMBER = 1,
  ZORLIB_VALUE_STRING = 2,
  ZORLIB_VALUE_BITMASK = 3,
  ZORLIB_VALUE_ANY = 4
};

struct zorlib_param_spec {
  uint32_t id;
  uint32_t num_comps;  /* words after "zorvik.", 1 to 4 */
  const char* comp[4]; /* stay the caller's, for the life of the process */
  uint32_t type;       /* ZORLIB_VALUE_... */
};

/* Appends up to `count` rules to the registry of 32, none for null `specs`. Always 0; what did not
 * fit is only logged, and so is every call after the library's own. */
int zorlib_register_params(uint32_t count, const struct zorlib_param_spec* specs);

/* Adds a pair to the list of at most 128; -1 (errno is not set) with a line when no rule accepts
 * it or one of the two is null. Of several pairs with one name the first counts. */
int zorlib_set_param(const char* name, const char* value);

/* The size that the parameters give to the group's queue `queue` (10 to 16000000), or with null
 * to the group's own queues (500 to 50000 times its number of interfaces); 0 when they give none
 * that can be used. */
unsigned long zorlib_ifg_lookup_qsize(zorlib_ifg* ifg, const char* queue);

/* The interfaces, and the processors, of the group's queue pair `n`, a bit each; 0 when the
 * parameters give none, or interfaces that the group does not have. */
unsigned long zorlib_ifg_lookup_if_mask(zorlib_ifg* ifg, uint32_t n);
unsigned long zorlib_ifg_lookup_cpu_mask(zorlib_ifg* ifg, uint32_t n);

#ifdef __cplusplus
}
#endif

#endif
