/* zorlib.h - the frame library: access to the interface groups, queues and frames of the zorvik
 * driver. For applications in C11 and C++.
 *
 * Unless stated otherwise, a function returns 0, or -1 with errno and a log line (syslog). Common
 * errors:
 *   EBADR   the handle is null or closed. zorlib_q_set_timeout, zorlib_q_frm_data, zorlib_q_room
 * and zorlib_q_used do not check the handle, and zorlib_q_frm_data does not check the frame. EINVAL
 * another pointer is null. This is not logged.
 *
 * Several threads may use a handle unless a function excludes it. No thread may use a handle while
 * another one closes it.
 */
#ifndef ZORLIB_H
#define ZORLIB_H

#include <stdint.h>

#include "zorlib/zorvik_layout.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Handles of an open interface group and of an open queue. The caller owns and closes them, in any
 * order: an open queue holds a reference to its group. */
typedef struct zorlib_ifg zorlib_ifg;
typedef struct zorlib_q zorlib_q;

enum { ZORLIB_READ = 0, ZORLIB_WRITE = 1 };

/* ---- Interface groups -------------------------------------------------------------------*/

/* Opens the group `name`. A null name or one that is not 1 to 16 characters long fails with
 * ENAMETOOLONG. *ifg changes on success only. */
int zorlib_ifg_open(const char* name, zorlib_ifg** ifg);

/* Returns a handle with only the driver's control node open, the first step of zorlib_ifg_open.
 * Null with errno on failure. */
zorlib_ifg* zorlib_ifg_alloc(const char* name);

/* Releases a reference. The last release returns cached frames to the driver, closes the nodes,
 * unmaps the frame memory and frees the handle. */
int zorlib_ifg_close(zorlib_ifg* ifg);

/* Waits up to 1.5 s until the node at `path` exists (appear 1) or no longer exists (appear 0).
 * Fails with the errno of access(2) for a node that does not appear, and with ETIMEDOUT for one
 * that does not disappear. */
int zorlib_ifg_devnode_wait(const char* path, int appear);

/* Returns the mapped descriptors and payload memory and their sizes in bytes; the first call maps
 * them. Takes a reference, which zorlib_ifg_close releases. */
int zorlib_map_frm_data(zorlib_ifg* ifg, struct zorvik_frm_desc** frmDesc, uint32_t* frmDescSize,
                        uint8_t** payload, uint32_t* payloadSize);

/* Lists the group's queues. The caller frees *list with free(3). */
int zorlib_ifg_q_enum(zorlib_ifg* ifg, struct zorvik_q_enum** list);

/* Removes the queue with this id. EBUSY while a process has it open. */
int zorlib_ifg_q_remove(zorlib_ifg* ifg, uint32_t id);

/* Reads the group's interfaces. */
struct zorlib_ifg_info {
  uint32_t num_ifs;
  struct zorvik_if_record ifs[ZORVIK_IF_MAX];
};
typedef struct zorlib_ifg_info zorlib_ifg_info;
int zorlib_ifg_query(zorlib_ifg* ifg, zorlib_ifg_info* info);

/* Reads the group's 64 flag bits. */
int zorlib_ifg_get_flags(zorlib_ifg* ifg, uint64_t* flags);

/* Sets the flag bits. When the driver refuses, the log has a line but the result is still 0. */
int zorlib_ifg_set_flags(zorlib_ifg* ifg, uint64_t flags);

/* Clear and set bit 0 of the flags. The other bits do not change. */
int zorlib_ifg_disable(zorlib_ifg* ifg);
int zorlib_ifg_enable(zorlib_ifg* ifg);

/* ---- Application queues -----------------------------------------------------------------*/

/* Creates the queue `name` (at most 16 characters) of `type` 3 to 6 with `size` entries, 10 to
 * 16000000. With size 0 the parameters give the size, else it is 100000. EEXIST when the group has
 * such a queue. */
int zorlib_ifg_create_q_app(zorlib_ifg* ifg, const char* name, uint32_t type, uint32_t size);

/* Issues the create request and waits for the queue's node. `reserved1` and `reserved2` are 0. */
int zorlib_ifg_q_create(zorlib_ifg* ifg, const char* name, uint32_t type, uint32_t size,
                        uint64_t reserved1, uint64_t reserved2);

/* Removes the queue `name`; case does not matter. ENOENT when there is none, EBUSY while a process
 * has it open. */
int zorlib_ifg_remove_q_app(zorlib_ifg* ifg, const char* name);

/* Opens the queue `name` as consumer (ZORLIB_READ) or producer (ZORLIB_WRITE) and ends a shutdown
 * of that side. Reads and writes wait without limit until zorlib_q_set_timeout sets one. */
int zorlib_q_app_open(zorlib_ifg* ifg, const char* name, uint32_t mode, zorlib_q** q);

/* Closes the queue and releases its reference to the group. */
int zorlib_q_close(zorlib_q* q);

/* Shuts down this handle's side of the queue: all its reads (or writes), current and future, fail
 * with ESHUTDOWN until the side is opened again, and those of this handle until it is closed. 0 for
 * a valid handle. Any thread. */
int zorlib_q_shutdown(zorlib_q* q);

/* Takes the next frame from the queue. The caller owns it and frees it exactly once. Waits up to
 * the queue's timeout, or `ms` milliseconds (UINT32_MAX: no limit). EAGAIN when no frame came,
 * ESHUTDOWN, EINTR, ENXIO for an identifier that belongs to no valid frame or for a damaged ring.
 * *frame is null on failure. The limit counts checks of the queue rather than time: a limit of up
 * to 2000 ms never sleeps. A read that fails because of the driver or of the ring takes 100 ms, so
 * that a caller that repeats it at once does not spin; so does such a write. */
int zorlib_q_read(zorlib_q* q, struct zorvik_frm_desc** frame);
int zorlib_q_read_timeout(zorlib_q* q, struct zorvik_frm_desc** frame, uint32_t ms);

/* Puts `frame` on the queue, passes it to the consumer and wakes a sleeping consumer
 * (ZORVIK_Q_WAKE). Waits for room up to the queue's timeout. EAGAIN when there was no room,
 * ESHUTDOWN, ENXIO for a damaged descriptor or ring. The caller keeps the frame on failure. */
int zorlib_q_write(zorlib_q* q, struct zorvik_frm_desc* frame);

/* Drops a reference to `frame`; the last one writes the frame to the egress queue `q`. ENXIO for
 * another type of queue, ENOSYS for a null queue. */
int zorlib_q_free(zorlib_q* q, struct zorvik_frm_desc* frame);

/* Returns `frame` to the driver's pool. */
int zorlib_frm_free(zorlib_ifg* ifg, struct zorvik_frm_desc* frame);

/* Sets how long reads and writes wait: milliseconds, or negative for no limit. Always 0. No other
 * thread may read or write at the same time. */
int zorlib_q_set_timeout(zorlib_q* q, int32_t ms);

/* Returns the queue's descriptor, or -1 with EBADR or ENOTCONN. Does not log. */
int zorlib_q_get_fd(zorlib_q* q);

/* Returns the queue's number of entries. Does not log. */
int zorlib_q_get_size(zorlib_q* q, uint32_t* entries);

/* Returns the address of the frame's data, or null when its offset and length reach beyond the
 * payload memory. */
uint8_t* zorlib_q_frm_data(zorlib_q* q, struct zorvik_frm_desc* frame);

/* Returns the number of bytes from `data` to the end of the payload memory, the upper bound for any
 * length in the frame's descriptor. `data` comes from zorlib_q_frm_data; the result is 0 for any
 * other address. */
uint32_t zorlib_q_room(zorlib_q* q, const uint8_t* data);

/* Returns how many frames are in the queue now. */
uint32_t zorlib_q_used(zorlib_q* q);

/* Logs the handle and its queue memory, at debug level above 0. */
void zorlib_q_dump(zorlib_q* q);

/* ---- Frame allocation -------------------------------------------------------------------*/

/* Allocates up to `count` frames whose buffers hold `size` bytes. Returns their number, at least 1,
 * or -1: ENOBUFS when the pool is empty, EMSGSIZE when no buffer is that large, ENOTCONN when the
 * frame memory is not mapped (opening a queue maps it). One request takes more frames than the
 * caller needs; the handle keeps them for later calls. */
int zorlib_batch_alloc(zorlib_ifg* ifg, uint32_t size, struct zorvik_frm_desc** frames,
                       uint32_t count);

/* Returns the address of a frame's buffer of frame->buf_size bytes, or null when it is not inside
 * the payload memory. The frame memory must be mapped, as it is after an allocation or a read. */
uint8_t* zorlib_ifg_frm_data(zorlib_ifg* ifg, struct zorvik_frm_desc* frame);

/* Allocates one frame. Null with errno on failure. */
struct zorvik_frm_desc* zorlib_ifg_frm_alloc(zorlib_ifg* ifg, uint32_t size);

/* Checks a descriptor. For a corrupt one, which must not reach the driver, it logs two lines,
 * writes the call stack to standard error and aborts the process. The frame memory must be
 * mapped. */
void zorlib_FRM_Vm(zorlib_ifg* ifg, struct zorvik_frm_desc* frame);

/* ---- Creating interface groups ----------------------------------------------------------*/

#define ZORLIB_MAX_QPAIRS 32

/* Creates the group `name` and opens it: its nodes, its frame data, the interfaces of `config` (an
 * even number, 2 to 32, mated in pairs 0 and 1, 2 and 3, ...) and the queue pairs to which the
 * parameters give an if_mask or cpu_mask. An invalid description fails with
 * EINVAL, ENXIO or EEXIST before any request to the driver. EEXIST also when the group exists,
 * EBUSY when another group has one of the interfaces. *ifg changes on success only. If a later step
 * fails, the group is removed again. */
int zorlib_ifg_create(const char* name, const struct zorvik_ifg_config* config, zorlib_ifg** ifg);

/* Creates the frame data of a group. The number of descriptors is the parameter fd_count (1000 to
 * 1000000), else 16384. zorlib_ifg_create calls this. */
int zorlib_ifg_create_frm_data(zorlib_ifg* ifg);

/* Replaces the group's interfaces and settings, completely or not at all. Refuses the same
 * descriptions as zorlib_ifg_create. Frames in use keep their interface numbers. */
int zorlib_ifg_configure(zorlib_ifg* ifg, const struct zorvik_ifg_config* config);

/* Removes the group with its queues and waits until its nodes are gone. ENOENT when there is none.
 * EBUSY while a process has the group or one of its queues open. */
int zorlib_ifg_remove(const char* name);

/* Lists the driver's groups. Unused records, from list->count on, have the name
 * ZORVIK_IFG_NIL_NAME. */
int zorlib_ifg_enum(struct zorvik_ifg_enum* list);

/* Set and get the queue pair cfg->index (below ZORLIB_MAX_QPAIRS, else EINVAL). A member that is 0
 * when the pair is set comes from the parameter q_size, if_mask or cpu_mask, if there is one. */
int zorlib_ifg_set_qpair_cfg(zorlib_ifg* ifg, const struct zorvik_qpair_cfg* cfg);
int zorlib_ifg_get_qpair_cfg(zorlib_ifg* ifg, struct zorvik_qpair_cfg* cfg);

/* Reads the group's frame counters. Frames that handles keep for later allocations count as
 * allocated. */
int zorlib_ifg_get_stats(zorlib_ifg* ifg, struct zorvik_ifg_stats* stats);

/* ---- Network interfaces and the driver's logging ----------------------------------------*/

struct zorlib_if {
  uint32_t index; /* the kernel's */
  uint32_t flags; /* IFF_... */
  char name[16];
  uint8_t ha[8];   /* the first bytes of the link-layer address */
  uint32_t ha_len; /* their number, at most 8 */
};

/* Lists the host's interfaces except the loopback. Returns the number stored, at most `capacity`.
 */
int zorlib_if_enum(struct zorlib_if* list, uint32_t capacity);

/* Get and set the driver's logging mask; add and delete some of its bits. */
int zorlib_get_logging_mask(uint64_t* mask);
int zorlib_set_logging_mask(uint64_t mask);
int zorlib_add_logging(uint64_t bits);
int zorlib_del_logging(uint64_t bits);

/* ---- Parameters -------------------------------------------------------------------------
 * A list of name/value pairs for the process. The library uses it where the caller gives no value.
 * A name is a sequence of words separated by dots, begins with "zorvik." and is not case-sensitive:
 *   zorvik.(group).q_size           number
 *   zorvik.(group).(queue).q_size   number; the queue "appq" means every application queue
 *   zorvik.(group).fd_count         number
 *   zorvik.(group).(n).cpu_mask     hexadecimal
 *   zorvik.(group).(n).if_mask      hexadecimal
 * A static initialiser may set parameters.
 */

/* How a rule matches a word: any word, a number, or else this text (not case-sensitive). */
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
  const char* comp[4]; /* owned by the caller, who keeps them until the process ends */
  uint32_t type;       /* ZORLIB_VALUE_... */
};

/* Appends up to `count` rules to the registry of 32; none if `specs` is null. Always 0. Logs a line
 * when the registry is full, and on every call after the library's own. */
int zorlib_register_params(uint32_t count, const struct zorlib_param_spec* specs);

/* Adds a pair to the list of at most 128. -1 with a log line, errno undefined, when a pointer is
 * null or no rule accepts the pair. The first of several pairs with the same name counts. */
int zorlib_set_param(const char* name, const char* value);

/* Returns the size that the parameters give the queue `queue` (10 to 16000000) or, if `queue` is
 * null, the group's own queues (500 to 50000 times its number of interfaces). 0 when there is no
 * usable parameter. */
unsigned long zorlib_ifg_lookup_qsize(zorlib_ifg* ifg, const char* queue);

/* Return the interfaces and the processors that the parameters give queue pair `n`, one bit each.
 * 0 when there is no usable parameter; an if_mask with interfaces that the group does not have is
 * not usable. */
unsigned long zorlib_ifg_lookup_if_mask(zorlib_ifg* ifg, uint32_t n);
unsigned long zorlib_ifg_lookup_cpu_mask(zorlib_ifg* ifg, uint32_t n);

#ifdef __cplusplus
}
#endif

#endif
