/* An application in C that uses the driver through open, mmap and ioctl. Prints the first check
 * that fails and exits with 1, else with 0. `zorvik_client wait` sleeps on the queue "brund/q" and
 * exits with 0 when it is woken. */
#include <errno.h>
#include <fcntl.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include "zorlib/zorvik_layout.h"

#define CHECK(condition)                                                   \
  do {                                                                     \
    if (!(condition)) {                                                    \
      printf("line %d: %s (%s)\n", __LINE__, #condition, strerror(errno)); \
      exit(1);                                                             \
    }                                                                      \
  } while (0)

#define REFUSED(call, error) CHECK((errno = 0, (call)) == -1 && errno == (error))

static int node(const char* path) {
  const int fd = open(path, O_RDWR | O_CLOEXEC);
  CHECK(fd >= 0);
  return fd;
}

static struct zorvik_qmem* map(int fd, struct zorvik_q_stat* stat) {
  CHECK(ioctl(fd, ZORVIK_Q_STAT, stat) == 0);
  void* memory = mmap(NULL, stat->mem_size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  CHECK(memory != MAP_FAILED);
  return memory;
}

static int sleeper(void) {
  const int fd = node(ZORVIK_DEV_DIR "/brund/q");
  struct zorvik_q_stat stat;
  const struct zorvik_qmem* qmem = map(fd, &stat);
  struct zorvik_q_wait wait = {.kresq_handle = qmem->cresq.kresq_handle, .timeout_ms = 30000};
  const int left = ioctl(fd, ZORVIK_Q_WAIT, &wait);
  CHECK(left > 0 && left <= 30000);
  return 0;
}

/* Requests on other files, and requests that the driver does not have, go to the kernel. */
static void otherRequests(int ctl) {
  int ends[2];
  int waiting = 0;
  CHECK(pipe(ends) == 0 && write(ends[1], "abc", 3) == 3);
  CHECK(ioctl(ends[0], FIONREAD, &waiting) == 0 && waiting == 3);
  uint64_t mask = 0;
  REFUSED(ioctl(ends[0], ZORVIK_GET_LOG_MASK, &mask), ENOTTY);
  REFUSED(ioctl(-1, ZORVIK_GET_LOG_MASK, &mask), EBADF);
  REFUSED(ioctl(ctl, _IO(ZORVIK_IOC, 0xff)), ENOTTY);
  REFUSED(ioctl(ctl, ZORVIK_GET_LOG_MASK, NULL), EFAULT);
  errno = 77;
  CHECK(ioctl(ctl, ZORVIK_GET_LOG_MASK, &mask) == 0 && errno == 77);
  const int number = (int)ZORVIK_GET_LOG_MASK; /* negative: it is sign-extended */
  CHECK(ioctl(ctl, (unsigned long)number, &mask) == 0);
}

static void settings(int ctl, int ifg) {
  struct zorvik_ifg_enum groups = {.count = ZORVIK_ENUM_MAX};
  CHECK(ioctl(ctl, ZORVIK_IFG_ENUM, &groups) == 0 && groups.count == 2);
  CHECK(strcmp(groups.records[1].name, "client") == 0 && groups.records[1].num_ifs == 0);
  struct zorvik_ifg_config config = {.num_ifs = 2};
  config.ifs[1].kern_if = 1;
  CHECK(ioctl(ifg, ZORVIK_IFG_CONFIGURE, &config) == 0);
  struct zorvik_if_record records[ZORVIK_IF_MAX];
  struct zorvik_ifg_query query = {.flags = (uintptr_t)records, .count = ZORVIK_IF_MAX};
  CHECK(ioctl(ifg, ZORVIK_IFG_QUERY, &query) == 1 && query.count == 2 && records[1].kern_if == 1);
  struct zorvik_qpair_cfg pair = {.index = 31, .size = 10, .cpu_mask = 1};
  CHECK(ioctl(ifg, ZORVIK_QPAIR_SET, &pair) == 0);
  pair.size = 0;
  CHECK(ioctl(ifg, ZORVIK_QPAIR_GET, &pair) == 0 && pair.size == 10 && pair.cpu_mask == 1);
  struct zorvik_ifg_stats stats;
  CHECK(ioctl(ifg, ZORVIK_IFG_STATS, &stats) == 0 && stats.frm_count == 10);
  CHECK(stats.frm_free == 10 && stats.frm_allocs == 1 && stats.frm_frees == 1);
}

/* Makes requests on `fd`, so that the library remembers what it is open on. */
static int known(int fd) {
  uint64_t mask = 0;
  CHECK(ioctl(fd, ZORVIK_GET_LOG_MASK, &mask) == 0 && ioctl(fd, ZORVIK_GET_LOG_MASK, &mask) == 0);
  return fd;
}

/* `fd` is now open on the payload node, which has no logging mask. */
static void replaced(int fd) {
  uint64_t mask = 0;
  uint32_t size = 0;
  REFUSED(ioctl(fd, ZORVIK_GET_LOG_MASK, &mask), ENOTTY);
  CHECK(ioctl(fd, ZORVIK_NET_DATA_SIZE, &size) == 0);
}

/* After a descriptor is closed or replaced, its number means the new file. */
static void numbers(void) {
  int fd = known(node(ZORVIK_CTL_NODE));
  close(fd);
  CHECK(node(ZORVIK_NET_DATA_NODE) == fd);
  replaced(fd);

  const int other = node(ZORVIK_CTL_NODE);
  CHECK(dup2(other, fd) == fd);
  const int net = node(ZORVIK_NET_DATA_NODE);
  CHECK(dup2(net, known(fd)) == fd);
  replaced(fd);
  CHECK(dup3(other, fd, O_CLOEXEC) == fd && dup3(net, known(fd), O_CLOEXEC) == fd);
  replaced(fd);

  const struct rlimit many = {.rlim_cur = 4096, .rlim_max = 4096};
  CHECK(setrlimit(RLIMIT_NOFILE, &many) == 0 && dup2(other, 2000) == 2000);
  CHECK(dup2(net, known(2000)) == 2000);
  replaced(2000);
  close(2000);
  close(net);
  close(other);
  close(fd);
}

static void frames(int desc, struct zorvik_qmem* qmem, int queue) {
  struct zorvik_frm_desc_size size;
  CHECK(ioctl(desc, ZORVIK_FRM_DESC_SIZE, &size) == 0 && size.size == 11 * 128);
  struct zorvik_frm_desc* frm = mmap(NULL, size.size, PROT_READ | PROT_WRITE, MAP_SHARED, desc, 0);
  CHECK(frm != MAP_FAILED);
  const int net = node(ZORVIK_NET_DATA_NODE);
  uint32_t payload_size = 0;
  CHECK(ioctl(net, ZORVIK_NET_DATA_SIZE, &payload_size) == 0);
  uint8_t* payload = mmap(NULL, payload_size, PROT_READ | PROT_WRITE, MAP_SHARED, net, 0);
  CHECK(payload != MAP_FAILED);

  struct zorvik_frm_alloc alloc = {.count = 1, .size = 60};
  CHECK(ioctl(desc, ZORVIK_FRM_ALLOC, &alloc) == 0 && alloc.count == 1);
  struct zorvik_frm_desc* frame = &frm[alloc.frame_ids[0] & ZORVIK_FRM_INDEX_MASK];
  CHECK(frame->flags == ZORVIK_FRM_VALID && frame->data_off + 60 <= payload_size);
  memset(payload + frame->data_off, 0xa5, 60);

  atomic_ullong* entry = (atomic_ullong*)(void*)zorvik_qmem_entries(qmem);
  atomic_store(entry, alloc.frame_ids[0]);
  atomic_store((atomic_uint*)&qmem->enqueue, 1);
  struct zorvik_q_wait wait = {.kresq_handle = qmem->cresq.kresq_handle, .timeout_ms = 9999};
  CHECK(ioctl(queue, ZORVIK_Q_WAIT, &wait) > 0);
  struct zorvik_q_wake wake = {.kresq_handle = qmem->presq.kresq_handle};
  CHECK(ioctl(queue, ZORVIK_Q_WAKE, &wake) == 0);
  atomic_store((atomic_uint*)&qmem->dequeue, 1);
  wait.timeout_ms = 20;
  CHECK(ioctl(queue, ZORVIK_Q_WAIT, &wait) == 0);

  struct zorvik_frm_free release = {.frame_id = alloc.frame_ids[0]};
  CHECK(ioctl(desc, ZORVIK_FRM_FREE, &release) == 0);
  REFUSED(ioctl(desc, ZORVIK_FRM_FREE, &release), ENOENT);
  munmap(frm, size.size);
  munmap(payload, payload_size);
  close(net);
}

int main(int argc, char** argv) {
  if (argc > 1 && strcmp(argv[1], "wait") == 0) {
    return sleeper();
  }
  const int ctl = node(ZORVIK_CTL_NODE);
  otherRequests(ctl);
  numbers();
  const struct zorvik_ifg_create group = {.name = "client"};
  CHECK(ioctl(ctl, ZORVIK_IFG_CREATE, &group) == 0);
  REFUSED(ioctl(ctl, ZORVIK_IFG_CREATE, &group), EEXIST);
  const int ifg = node(ZORVIK_DEV_DIR "/client/ctl");
  const uint32_t count = 10;
  CHECK(ioctl(ifg, ZORVIK_FRM_DATA_CREATE, &count) == 0);
  struct zorvik_q_create create = {.type = ZORVIK_Q_APP, .size = 8, .name = "TarnikQ"};
  const int id = ioctl(ifg, ZORVIK_Q_CREATE, &create);
  CHECK(id > 0);
  REFUSED(ioctl(ifg, ZORVIK_Q_CREATE, &create), EEXIST);

  const int queue = node(ZORVIK_DEV_DIR "/client/TarnikQ");
  const int desc = node(ZORVIK_DEV_DIR "/client/frm_desc");
  struct zorvik_q_stat stat;
  struct zorvik_qmem* qmem = map(queue, &stat);
  CHECK(stat.id == (uint32_t)id && stat.entries == 8 && stat.mem_size == 384);
  frames(desc, qmem, queue);
  settings(ctl, ifg);
  CHECK(system("exit 3") == 3 << 8); /* a preloaded shell works */

  const uint32_t remove = (uint32_t)id;
  REFUSED(ioctl(ifg, ZORVIK_Q_REMOVE, &remove), EBUSY);
  munmap(qmem, stat.mem_size);
  close(queue);
  CHECK(ioctl(ifg, ZORVIK_Q_REMOVE, &remove) == 0);
  REFUSED(ioctl(ctl, ZORVIK_IFG_REMOVE, &group), EBUSY);
  close(desc);
  close(ifg);
  /* Open, without a request. */
  const int again = open64(ZORVIK_DEV_DIR "/client/frm_desc", O_RDWR);
  CHECK(again >= 0);
  REFUSED(ioctl(ctl, ZORVIK_IFG_REMOVE, &group), EBUSY);
  close(again);
  CHECK(ioctl(ctl, ZORVIK_IFG_REMOVE, &group) == 0);
  return 0;
}
