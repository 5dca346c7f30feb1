/* zorvik_layout.h - the interface between the zorvik driver and its applications: device nodes,
 * ioctl requests and shared-memory layouts. The only header that a driver and the frame library
 * share. C11 and C++. All numbers are little-endian. Another process may have written any value
 * in these structures: check its range before you use it.
 */
#ifndef ZORVIK_LAYOUT_H
#define ZORVIK_LAYOUT_H

#include <assert.h>
#include <linux/ioctl.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define ZORVIK_ASSERT(condition) static_assert(condition, #condition)
#else
#define ZORVIK_ASSERT(condition) _Static_assert(condition, #condition)
#endif

/* Check the offsets of one to four members of a structure. */
#define ZORVIK_AT(type, a, at_a) ZORVIK_ASSERT(offsetof(struct type, a) == (at_a))
#define ZORVIK_AT2(type, a, at_a, b, at_b) \
  ZORVIK_AT(type, a, at_a);                \
  ZORVIK_AT(type, b, at_b)
#define ZORVIK_AT3(type, a, at_a, b, at_b, c, at_c) \
  ZORVIK_AT2(type, a, at_a, b, at_b);               \
  ZORVIK_AT(type, c, at_c)
#define ZORVIK_AT4(type, a, at_a, b, at_b, c, at_c, d, at_d) \
  ZORVIK_AT2(type, a, at_a, b, at_b);                        \
  ZORVIK_AT2(type, c, at_c, d, at_d)

/* ---- Device nodes -----------------------------------------------------------------------*/

#define ZORVIK_DEV_DIR "/dev/zorvik"
#define ZORVIK_CTL_NODE "/dev/zorvik/ctl"           /* the driver's control node */
#define ZORVIK_NET_DATA_NODE "/dev/zorvik/net_data" /* payload memory of all groups */
#define ZORVIK_IFG_CTL "ctl"                        /* in a group's directory: its control node */
#define ZORVIK_IFG_FRM_DESC "frm_desc"              /* its frame descriptors */

#define ZORVIK_NAME_MAX 16u /* characters of a group's or queue's name, NUL not counted */
#define ZORVIK_ENUM_MAX 32u /* records of an enumeration */

/* ---- Requests on a group's control node -------------------------------------------------*/

#define ZORVIK_IF_MAX 32u /* interfaces of a group */

/* What an interface does with its traffic. */
enum {
  ZORVIK_IF_INLINE = 1,  /* frames are captured and pass to the mate */
  ZORVIK_IF_PASSIVE = 2, /* frames are captured only */
  ZORVIK_IF_BYPASS = 3,  /* frames pass to the mate only */
};
#define ZORVIK_IF_SUB_MODE_MAX 4u

struct zorvik_if_record {
  uint32_t kern_if;  /* the kernel's interface index */
  uint32_t mate;     /* the other interface of the pair, by its position in the group */
  uint32_t mode;     /* ZORVIK_IF_...; this and all below are the same in both of a pair */
  uint32_t sub_mode; /* 0 to ZORVIK_IF_SUB_MODE_MAX */
  uint32_t mtu;      /* bytes, 0: the kernel's setting */
  uint32_t speed;    /* Mbit/s, 0: negotiated */
  uint32_t duplex;   /* 0: negotiated, 1: half, 2: full */
  uint32_t reserved;
};

#define ZORVIK_LINK_CONFIG_BITS 0x3fu
#define ZORVIK_LINK_CONFIG_KEEP 0xffffu /* leaves link_config unchanged */
#define ZORVIK_PROP_LINK_TIME_MIN 5000u /* milliseconds */

/* Replaces the group's interfaces and settings, completely or not at all. Interfaces come in pairs:
 * 0 with 1, 2 with 3, ... The library checks the description (zorlib_ifg_configure). The driver
 * fails with EINVAL for an invalid number of interfaces and with EBUSY for an interface of another
 * group. */
struct zorvik_ifg_config {
  uint32_t num_ifs;     /* even, 2 to ZORVIK_IF_MAX */
  uint16_t link_config; /* ZORVIK_LINK_CONFIG_... */
  uint16_t reserved;
  uint32_t fwd_unanalyzed; /* 1: frames pass while no application analyses them; or 0 */
  uint32_t prop_link;      /* 1: a link that fails takes its mate's down; or 0 */
  uint32_t prop_link_time; /* after this time (ms); with prop_link at least ..._MIN */
  uint32_t reserved2;
  struct zorvik_if_record ifs[ZORVIK_IF_MAX];
};

/* With count 0: returns the group's flags in `flags`. With another count: `flags` is the address of
 * an array of that many struct zorvik_if_record; the driver fills in the group's interfaces, as
 * many as fit, and sets count to their number. The result is then a cookie that changes with each
 * configuration and is 0 for a group without interfaces. */
struct zorvik_ifg_query {
  uint64_t flags;
  uint32_t count;
  uint32_t reserved;
};

struct zorvik_q_record {
  uint32_t id;
  uint32_t type;
  uint32_t entries;
  uint32_t reserved;
  char name[ZORVIK_NAME_MAX]; /* without NUL when 16 characters long */
  uint32_t requested;         /* size in the create request */
};

struct zorvik_q_enum {
  uint32_t count; /* capacity in, number out */
  struct zorvik_q_record records[ZORVIK_ENUM_MAX];
};

struct zorvik_q_create {
  uint32_t type; /* ZORVIK_Q_... */
  uint32_t size; /* entries wanted; the driver rounds up to a power of two */
  uint64_t reserved[2];
  char name[ZORVIK_NAME_MAX];
  uint64_t reserved2;
};

/* Queue types. Applications create types 3 to 6. */
enum {
  ZORVIK_Q_INGRESS = 1, /* reads set the data pointer and take a frame reference */
  ZORVIK_Q_EGRESS = 2,
  ZORVIK_Q_SHARED = 3, /* reads add a frame reference */
  ZORVIK_Q_FANOUT = 4, /* writes add a queue reference */
  ZORVIK_Q_APP = 5,    /* writes add a queue reference */
  ZORVIK_Q_RAW = 6,
};

/* A queue pair: the interfaces whose frames it receives and the processors that serve it. EINVAL
 * for an index of ZORVIK_QPAIR_MAX or more, a size above 16000000 or an interface that the group
 * does not have. All zero until it is set. A configuration with fewer interfaces clears the bits of
 * the others. */
#define ZORVIK_QPAIR_MAX 32u
struct zorvik_qpair_cfg {
  uint32_t index;
  uint32_t size;     /* entries, 0: the driver's choice */
  uint64_t if_mask;  /* a bit per interface, by its position in the group */
  uint64_t cpu_mask; /* 0: any */
};

/* The group's frames. The 64-bit counters start with the group. Frames in use are frm_allocs -
 * frm_frees, or frm_count - frm_free. */
struct zorvik_ifg_stats {
  uint32_t frm_count;       /* descriptors, without the unused first one */
  uint32_t frm_free;        /* free descriptors */
  uint32_t buf_count;       /* buffers of all groups */
  uint32_t buf_free;        /* free buffers */
  uint64_t frm_allocs;      /* frames allocated */
  uint64_t frm_frees;       /* frames freed, including those of dead processes */
  uint64_t alloc_empty;     /* requests without a frame (ENOBUFS) */
  uint64_t alloc_too_large; /* requests larger than any buffer (EMSGSIZE) */
};

/* ---- Requests on a group's frm_desc node ------------------------------------------------*/

struct zorvik_frm_desc_size {
  uint32_t reserved;
  uint32_t size; /* bytes of the descriptor memory */
};

struct zorvik_frm_free {
  uint64_t reserved;
  uint32_t frame_id;
  uint32_t reserved2;
};

#define ZORVIK_FRM_ALLOC_MAX 62u

/* Takes up to `count` frames with room for `size` bytes from the pool and sets count to their
 * number, at least 1 (ENOBUFS when the pool is empty, EMSGSIZE when no buffer is that large). The
 * descriptors are valid, with reference count 1; lengths, tag and packet flags are 0. */
struct zorvik_frm_alloc {
  uint32_t count;
  uint32_t size;
  uint32_t frame_ids[ZORVIK_FRM_ALLOC_MAX];
};

/* ---- Requests on a queue's node ---------------------------------------------------------*/

struct zorvik_q_stat {
  uint32_t id;
  uint32_t type;
  uint32_t entries;
  uint32_t mem_size; /* bytes of the queue memory */
  uint32_t reserved[6];
};

/* Waits for a wake request, which wakes all waiters of the record, or until the time is up. Returns
 * the time that remains, 0 after a time-out. Returns the whole time at once when the record's
 * flags have a bit set, because a wake-up or shutdown may come just before this request. EINTR
 * after a signal. */
struct zorvik_q_wait {
  uint32_t kresq_handle;
  uint32_t timeout_ms; /* 0: no limit */
};

struct zorvik_q_wake {
  uint32_t kresq_handle;
  uint32_t reserved;
};

/* ---- Requests on the driver's control node ----------------------------------------------*/

/* Creates a group, or removes one with its queues: ENOENT when there is none, EBUSY while a process
 * has one of its nodes open or mapped. */
struct __attribute__((packed)) zorvik_ifg_create {
  char name[ZORVIK_NAME_MAX + 1u];
};

/* The name of handles and records without a group. No group can have it. */
#define ZORVIK_IFG_NIL_NAME "_nil_ifg"

/* The driver's groups. */
struct zorvik_ifg_record {
  uint32_t id; /* unique until the driver is unloaded */
  uint32_t num_ifs;
  char name[ZORVIK_NAME_MAX]; /* not terminated when 16 characters long */
};

struct zorvik_ifg_enum {
  uint32_t count; /* capacity in, number out */
  struct zorvik_ifg_record records[ZORVIK_ENUM_MAX];
};

/* ---- Request numbers --------------------------------------------------------------------
 * A request number contains the size of its structure; the number of the queue enumeration
 * contains the size of its first word only.
 */
#define ZORVIK_IOC 0xbf
#define ZORVIK_IFG_CREATE _IOW(ZORVIK_IOC, 0xa0, struct zorvik_ifg_create)
#define ZORVIK_IFG_REMOVE _IOW(ZORVIK_IOC, 0xa1, struct zorvik_ifg_create)
#define ZORVIK_IFG_CONFIGURE _IOW(ZORVIK_IOC, 0xa2, struct zorvik_ifg_config)
#define ZORVIK_IFG_QUERY _IOWR(ZORVIK_IOC, 0xa3, struct zorvik_ifg_query)
#define ZORVIK_IFG_SET_FLAGS _IO(ZORVIK_IOC, 0xa4) /* the flags are the argument */
#define ZORVIK_IFG_ENUM _IOWR(ZORVIK_IOC, 0xa5, struct zorvik_ifg_enum)
#define ZORVIK_Q_CREATE _IOW(ZORVIK_IOC, 0xa6, struct zorvik_q_create)
#define ZORVIK_FRM_DATA_CREATE _IOW(ZORVIK_IOC, 0xa7, uint32_t) /* descriptors wanted */
#define ZORVIK_QPAIR_SET _IOW(ZORVIK_IOC, 0xa8, struct zorvik_qpair_cfg)
#define ZORVIK_FRM_DESC_SIZE _IOR(ZORVIK_IOC, 0xa9, struct zorvik_frm_desc_size)
#define ZORVIK_Q_REMOVE _IOW(ZORVIK_IOC, 0xaa, uint32_t) /* queue id */
#define ZORVIK_Q_ENUM _IOWR(ZORVIK_IOC, 0xab, uint32_t)  /* struct zorvik_q_enum */
#define ZORVIK_Q_STAT _IOW(ZORVIK_IOC, 0xac, struct zorvik_q_stat)
/* The driver fills in the bytes of payload memory. */
#define ZORVIK_NET_DATA_SIZE _IOW(ZORVIK_IOC, 0xad, uint32_t)
#define ZORVIK_QPAIR_GET _IOWR(ZORVIK_IOC, 0xae, struct zorvik_qpair_cfg)
#define ZORVIK_FRM_ALLOC _IOWR(ZORVIK_IOC, 0xaf, struct zorvik_frm_alloc)
#define ZORVIK_FRM_FREE _IOW(ZORVIK_IOC, 0xb0, struct zorvik_frm_free)
#define ZORVIK_Q_WAIT _IOW(ZORVIK_IOC, 0xb1, struct zorvik_q_wait)
#define ZORVIK_Q_WAKE _IOW(ZORVIK_IOC, 0xb2, struct zorvik_q_wake)
#define ZORVIK_IFG_STATS _IOR(ZORVIK_IOC, 0xb3, struct zorvik_ifg_stats)
#define ZORVIK_GET_LOG_MASK _IOWR(ZORVIK_IOC, 0xb5, uint64_t)
#define ZORVIK_SET_LOG_MASK _IOWR(ZORVIK_IOC, 0xb6, uint64_t)

ZORVIK_ASSERT(ZORVIK_IFG_CREATE == 0x4011bfa0u);
ZORVIK_ASSERT(ZORVIK_IFG_REMOVE == 0x4011bfa1u);
ZORVIK_ASSERT(ZORVIK_IFG_QUERY == 0xc010bfa3u);
ZORVIK_ASSERT(ZORVIK_IFG_SET_FLAGS == 0xbfa4u);
ZORVIK_ASSERT(ZORVIK_Q_CREATE == 0x4030bfa6u);
ZORVIK_ASSERT(ZORVIK_FRM_DATA_CREATE == 0x4004bfa7u);
ZORVIK_ASSERT(ZORVIK_FRM_DESC_SIZE == 0x8008bfa9u);
ZORVIK_ASSERT(ZORVIK_Q_REMOVE == 0x4004bfaau);
ZORVIK_ASSERT(ZORVIK_Q_ENUM == 0xc004bfabu);
ZORVIK_ASSERT(ZORVIK_Q_STAT == 0x4028bfacu);
ZORVIK_ASSERT(ZORVIK_NET_DATA_SIZE == 0x4004bfadu);
ZORVIK_ASSERT(ZORVIK_FRM_ALLOC == 0xc100bfafu);
ZORVIK_ASSERT(ZORVIK_FRM_FREE == 0x4010bfb0u);
ZORVIK_ASSERT(ZORVIK_Q_WAIT == 0x4008bfb1u);
ZORVIK_ASSERT(ZORVIK_Q_WAKE == 0x4008bfb2u);
ZORVIK_ASSERT(ZORVIK_GET_LOG_MASK == 0xc008bfb5u);
ZORVIK_ASSERT(ZORVIK_SET_LOG_MASK == 0xc008bfb6u);
ZORVIK_ASSERT(ZORVIK_IFG_CONFIGURE == 0x4418bfa2u);
ZORVIK_ASSERT(ZORVIK_IFG_ENUM == 0xc304bfa5u);
ZORVIK_ASSERT(ZORVIK_QPAIR_SET == 0x4018bfa8u);
ZORVIK_ASSERT(ZORVIK_QPAIR_GET == 0xc018bfaeu);
ZORVIK_ASSERT(ZORVIK_IFG_STATS == 0x8030bfb3u);

ZORVIK_AT4(zorvik_if_record, kern_if, 0, mate, 4, mode, 8, sub_mode, 12);
ZORVIK_AT4(zorvik_if_record, mtu, 16, speed, 20, duplex, 24, reserved, 28);
ZORVIK_AT4(zorvik_ifg_config, num_ifs, 0, link_config, 4, reserved, 6, fwd_unanalyzed, 8);
ZORVIK_AT4(zorvik_ifg_config, prop_link, 12, prop_link_time, 16, reserved2, 20, ifs, 24);
ZORVIK_AT3(zorvik_ifg_query, flags, 0, count, 8, reserved, 12);
ZORVIK_AT4(zorvik_q_record, id, 0, type, 4, entries, 8, reserved, 12);
ZORVIK_AT2(zorvik_q_record, name, 16, requested, 32);
ZORVIK_AT2(zorvik_q_enum, count, 0, records, 4);
ZORVIK_AT4(zorvik_q_create, type, 0, size, 4, reserved, 8, name, 24);
ZORVIK_AT(zorvik_q_create, reserved2, 40);
ZORVIK_AT4(zorvik_qpair_cfg, index, 0, size, 4, if_mask, 8, cpu_mask, 16);
ZORVIK_AT4(zorvik_ifg_stats, frm_count, 0, frm_free, 4, buf_count, 8, buf_free, 12);
ZORVIK_AT4(zorvik_ifg_stats, frm_allocs, 16, frm_frees, 24, alloc_empty, 32, alloc_too_large, 40);
ZORVIK_AT2(zorvik_frm_desc_size, reserved, 0, size, 4);
ZORVIK_AT3(zorvik_frm_free, reserved, 0, frame_id, 8, reserved2, 12);
ZORVIK_AT3(zorvik_frm_alloc, count, 0, size, 4, frame_ids, 8);
ZORVIK_AT4(zorvik_q_stat, id, 0, type, 4, entries, 8, mem_size, 12);
ZORVIK_AT(zorvik_q_stat, reserved, 16);
ZORVIK_AT2(zorvik_q_wait, kresq_handle, 0, timeout_ms, 4);
ZORVIK_AT2(zorvik_q_wake, kresq_handle, 0, reserved, 4);
ZORVIK_AT(zorvik_ifg_create, name, 0);
ZORVIK_AT3(zorvik_ifg_record, id, 0, num_ifs, 4, name, 8);
ZORVIK_AT2(zorvik_ifg_enum, count, 0, records, 4);
ZORVIK_ASSERT(sizeof(struct zorvik_q_record) == 36);
ZORVIK_ASSERT(sizeof(struct zorvik_q_enum) == 1156);

/* ---- Queue memory -----------------------------------------------------------------------
 * A ring of frame identifiers, mapped from offset 0 of the queue's node. Producer and consumer each
 * have a wait/wake record. All accesses to the words are atomic with full barriers.
 */
enum {
  ZORVIK_RESQ_WOKEN = 1u << 0,    /* a wake-up was posted to this side */
  ZORVIK_RESQ_SHUTDOWN = 1u << 2, /* this side is shut down */
};

struct zorvik_resq {
  uint32_t tag;
  uint32_t flags;
  uint32_t kresq_handle; /* identifies this record in wait and wake requests */
  uint8_t reserved[52];
};

struct zorvik_qmem {
  struct zorvik_resq presq; /* producer */
  struct zorvik_resq cresq; /* consumer */
  uint32_t enqueue;         /* next slot to fill, masked */
  uint8_t reserved1[60];
  uint32_t dequeue; /* next slot to empty, masked */
  uint8_t reserved2[60];
  uint32_t max_elements; /* slots, a power of two; one is always empty */
  uint32_t mask;         /* slots - 1 */
  uint8_t reserved3[56];
};

/* The slots follow the structure. An empty slot is 0, a full one has a frame identifier in its low
 * 32 bits. */
static inline uint64_t* zorvik_qmem_entries(struct zorvik_qmem* qmem) {
  return (uint64_t*)(void*)(qmem + 1);
}

ZORVIK_AT4(zorvik_resq, tag, 0, flags, 4, kresq_handle, 8, reserved, 12);
ZORVIK_AT4(zorvik_qmem, presq, 0, cresq, 64, enqueue, 128, reserved1, 132);
ZORVIK_AT4(zorvik_qmem, dequeue, 192, reserved2, 196, max_elements, 256, mask, 260);
ZORVIK_AT(zorvik_qmem, reserved3, 264);
ZORVIK_ASSERT(sizeof(struct zorvik_qmem) == 320);

/* ---- Frame descriptors ------------------------------------------------------------------*/

#define ZORVIK_FRM_INDEX_MASK 0x00ffffffu /* of a frame identifier; index 0 is never valid */
#define ZORVIK_FRM_GENERATION_SHIFT 24u

#define ZORVIK_FRM_VALID 0x0001u
#define ZORVIK_FRM_PKT_FLAG_1 0x4000u /* packet flag 1 */
#define ZORVIK_FRM_PKT_FLAG_4 0x8000u /* packet flag 4: the capture's last frame */

#define ZORVIK_IF_LOCAL (-1)
#define ZORVIK_Q_UNKNOWN (-1)

struct zorvik_frm_desc {
  uint32_t wire_len; /* bytes on the wire */
  uint32_t cap_len;  /* bytes captured, at data_off */
  uint32_t ts_sec;
  uint32_t ts_usec;
  uint64_t data; /* address in the reader's process, set by reads from queues of type 1 */
  uint64_t assoc_buf;
  uint8_t reserved1[16];
  uint16_t frame_size; /* bytes in the buffer */
  uint8_t reserved2[2];
  uint32_t buf_size; /* bytes of the frame's buffer */
  int16_t if_in;     /* interface number or ZORVIK_IF_LOCAL */
  int16_t if_out;
  int16_t q_idx; /* queue pair or ZORVIK_Q_UNKNOWN */
  uint8_t reserved3[10];
  uint64_t tag;      /* the capture identifier */
  uint32_t data_off; /* offset of the frame's data in the payload memory */
  uint32_t index;    /* this descriptor's index */
  uint8_t reserved4[8];
  uint8_t generation; /* changes when the frame is freed */
  uint8_t reserved5[4];
  uint8_t qref_cnt; /* queue references (types 4 and 5) */
  uint8_t ref_cnt;
  uint8_t eng_ref_cnt;
  uint16_t flags; /* ZORVIK_FRM_... */
  uint8_t reserved6[22];
};

ZORVIK_AT4(zorvik_frm_desc, wire_len, 0, cap_len, 4, ts_sec, 8, ts_usec, 12);
ZORVIK_AT4(zorvik_frm_desc, data, 16, assoc_buf, 24, reserved1, 32, frame_size, 48);
ZORVIK_AT4(zorvik_frm_desc, reserved2, 50, buf_size, 52, if_in, 56, if_out, 58);
ZORVIK_AT4(zorvik_frm_desc, q_idx, 60, reserved3, 62, tag, 72, data_off, 80);
ZORVIK_AT4(zorvik_frm_desc, index, 84, reserved4, 88, generation, 96, reserved5, 97);
ZORVIK_AT4(zorvik_frm_desc, qref_cnt, 101, ref_cnt, 102, eng_ref_cnt, 103, flags, 104);
ZORVIK_AT(zorvik_frm_desc, reserved6, 106);
ZORVIK_ASSERT(sizeof(struct zorvik_frm_desc) == 128);

#endif
