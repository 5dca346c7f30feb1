/* A model of a queue's ring for the model checker spin. Waits have no time limit.
 *
 *   SLOTS      number of slots, a power of two
 *   PRODUCERS  number of producers
 *   CONSUMERS  number of consumers
 *   FRAMES     number of frames that each producer writes
 *   EARLY_STOP shut both sides down at any moment; without it there is no shutdown
 *   CLEARED    with EARLY_STOP: another process clears the shared shutdown flags three times, at any
 *              moment. When all processes wait, both sides are shut down again. Once must be enough
 *   NOT_FINAL  with CLEARED: a shutdown is only the shared flag, without a private flag in the handle
 *   NAIVE_WAIT the driver puts a waiter to sleep without checking the flags
 *   EARLY_WAKE a producer posts the wake-up before it claims its slot, as a processor without barriers
 *              might
 *   UNWRAPPED  a swap fails when its counter has changed at all, even if it has advanced around the
 *              ring to the same value: the ring as if its counters never wrapped
 *
 * Each access to a shared word is one step, in the order of zorlib/q_io.cc. What a process then does
 * with its own variables is part of that step, because no other process can observe when it
 * happens. Variables that are no longer needed are set to 0, so that equivalent states are one
 * state. A process that spins waits for the condition that ends the spin, so that endless spinning
 * shows as a hang.
 *
 * The search checks that frames are taken in the order in which their slots were claimed, and each
 * once (the assertion: frames are numbered when they are claimed), that all of them are taken (init
 * waits for it), and that no process hangs: a lost wake-up or a lost frame leaves a process waiting,
 * which is an invalid end state. Without EARLY_STOP consumers may sleep at the end.
 */
#ifndef SLOTS
#define SLOTS 4
#endif
#ifndef PRODUCERS
#define PRODUCERS 1
#endif
#ifndef CONSUMERS
#define CONSUMERS 1
#endif
#ifndef FRAMES
#define FRAMES 5
#endif
#define MASK (SLOTS - 1)
#define TOTAL (PRODUCERS * FRAMES)
#define FULL(e, d) ((d) == (((e) + 1) & MASK))

byte enqueue, dequeue;
byte slot[SLOTS];
bool producerWoken, consumerWoken;

/* State of the driver: which processes sleep. */
bool producerAsleep[PRODUCERS], consumerAsleep[CONSUMERS];

/* Only for the checks: the number of slots claimed by producers and by consumers. */
byte claimed, taken;

#ifdef UNWRAPPED
#define UNMOVED(counter, moves, then) ((moves) == m)
#define KEEP(moves) m = moves
#else
#define UNMOVED(counter, moves, then) ((counter) == (then))
#define KEEP(moves) skip
#endif

#ifdef EARLY_STOP
bool producerShut, consumerShut; /* the shared flags */
#if defined(CLEARED) && !defined(NOT_FINAL)
bool final; /* the private flags of the handles */
#else
#define final false
#endif
#define STOP_IF(shut) if :: shut || final -> goto done :: else fi
#else
#define producerShut false
#define consumerShut false
#define final false
#define STOP_IF(shut) skip
#endif
byte ended; /* number of processes */

byte k; /* loop variable of the wake requests */

inline wakeProducers() {
  d_step { k = 0; do :: k < PRODUCERS -> producerAsleep[k] = false; k++ :: else -> break od; k = 0 }
}
inline wakeConsumers() {
  d_step { k = 0; do :: k < CONSUMERS -> consumerAsleep[k] = false; k++ :: else -> break od; k = 0 }
}

/* zorlib_q_shutdown on each side. */
inline shutDown() {
#ifdef EARLY_STOP
#if defined(CLEARED) && !defined(NOT_FINAL)
  final = true;
#endif
  producerShut = true;
  wakeProducers();
  consumerShut = true;
  wakeConsumers()
#endif
}

proctype Producer(byte me) {
  byte e, m, id, left = FRAMES;
look:
  STOP_IF(producerShut);
again:
  atomic { e = enqueue; KEEP(claimed) };
  if :: FULL(e, dequeue) -> goto isFull :: else fi;
  if :: slot[e] != 0 -> goto spin :: else fi;
#ifdef EARLY_WAKE
  atomic { consumerWoken = true; wakeConsumers() };
#endif
  atomic {
    if
    :: UNMOVED(enqueue, claimed, e) ->
      claimed++; enqueue = (e + 1) & MASK;
      id = claimed; left--; m = 0
    :: else -> e = 0; m = 0; goto lost
    fi
  };
  atomic { slot[e] = id; e = 0; id = 0 };
#ifdef EARLY_WAKE
  if :: left == 0 -> goto done :: else -> goto look fi;
#endif
  atomic {
    if
    :: consumerWoken -> if :: left == 0 -> goto done :: else -> goto look fi
    :: else -> consumerWoken = true
    fi
  };
  atomic { wakeConsumers(); if :: left == 0 -> goto done :: else -> goto look fi };
spin:
  atomic { (slot[e] == 0 || enqueue != e || FULL(e, dequeue) || producerShut || final); e = 0; m = 0 };
lost:
  STOP_IF(producerShut);
  goto again;
isFull:
  STOP_IF(producerShut);
  atomic { e = 0; m = 0; if :: producerWoken -> producerWoken = false; goto look :: else fi };
  atomic {
#ifndef NAIVE_WAIT
    if
    :: producerWoken || producerShut -> goto look
    :: else -> producerAsleep[me] = true
    fi
#else
    producerAsleep[me] = true
#endif
  };
  (!producerAsleep[me]);
  goto look;
done:
  ended++
}

proctype Consumer(byte me) {
  byte d, m, v;
look:
  STOP_IF(consumerShut);
again:
  atomic { d = dequeue; KEEP(taken) };
  atomic { if :: enqueue == d -> d = 0; m = 0; goto isEmpty :: else fi };
  atomic { v = slot[d]; if :: v == 0 -> goto spin :: else fi };
  atomic {
    if
    :: UNMOVED(dequeue, taken, d) ->
      taken++; dequeue = (d + 1) & MASK;
      assert(v == taken);
      v = 0; m = 0
    :: else -> d = 0; v = 0; m = 0; goto lost
    fi
  };
  atomic { slot[d] = 0; d = 0 };
  atomic { if :: producerWoken -> goto look :: else -> producerWoken = true fi };
  wakeProducers();
  goto look;
spin:
  atomic { (slot[d] != 0 || dequeue != d || enqueue == d || consumerShut || final); d = 0; m = 0 };
lost:
  STOP_IF(consumerShut);
  goto again;
isEmpty:
  STOP_IF(consumerShut);
  atomic { if :: consumerWoken -> consumerWoken = false; goto look :: else fi };
  atomic {
#ifndef NAIVE_WAIT
    if
    :: consumerWoken || consumerShut -> goto look
    :: else -> consumerAsleep[me] = true
    fi
#else
    consumerAsleep[me] = true
#endif
  };
#ifndef EARLY_STOP
endAsleep:
#endif
  (!consumerAsleep[me]);
  goto look;
done:
  ended++
}

init {
  byte i;
  atomic {
    i = 0;
    do :: i < PRODUCERS -> run Producer(i); i++ :: else -> break od;
    i = 0;
    do :: i < CONSUMERS -> run Consumer(i); i++ :: else -> break od;
    i = 0
  };
#ifndef EARLY_STOP
  (taken == TOTAL)
#else
  shutDown();
#ifdef CLEARED
  i = 0;
  do
  :: ended == PRODUCERS + CONSUMERS -> break
  :: timeout -> atomic { i++; assert(i == 1) }; shutDown()
  od
#endif
#endif
}

#ifdef CLEARED
active proctype Clearer() {
  byte times;
end:
  do
  :: times < 3 && (producerShut || consumerShut) ->
    atomic { producerShut = false; consumerShut = false; times++ }
  od
}
#endif
