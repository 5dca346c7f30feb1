/* The ring of a queue, for the model checker spin: every access to a shared word is one step, as
 * zorlib makes it (frameq/zorlib_q_io.cc names the same steps). Waits have no time limit.
 *
 *   SLOTS      of the ring, a power of two
 *   PRODUCERS  CONSUMERS
 *   FRAMES     that each producer writes
 *   EARLY_STOP both sides are shut down at any moment, not only when all frames have been read
 *   NAIVE_WAIT the driver puts a waiter to sleep without looking at the flags
 *   UNWRAPPED  a swap fails when its counter has moved at all, even if it has come round to the same
 *              value: the ring as it would be with counters that never wrap
 *
 * What is checked: no frame is read twice (the assertion); nobody hangs, for a lost wake-up, a
 * lost frame or a broken ring leaves somebody waiting (an invalid end state); at the end every
 * frame has been read. A spin is a wait for what ends it, so that endless spinning shows too.
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
bool producerWoken, producerShut, consumerWoken, consumerShut;

/* The driver's: who sleeps. */
bool producerAsleep[PRODUCERS], consumerAsleep[CONSUMERS];

#ifdef UNWRAPPED
byte enqueueMoves, dequeueMoves;
#define UNMOVED(counter, moves, then) ((counter) == (then) && (moves) == m)
#define MOVE(moves) moves++
#else
#define UNMOVED(counter, moves, then) ((counter) == (then))
#define MOVE(moves) skip
#endif

/* The observer's. */
bool seen[TOTAL + 1];
byte received;
byte writing = PRODUCERS; /* producers that are not done */

byte k; /* of the loops inside wake requests */

inline wakeProducers() {
  d_step { k = 0; do :: k < PRODUCERS -> producerAsleep[k] = false; k++ :: else -> break od; k = 0 }
}
inline wakeConsumers() {
  d_step { k = 0; do :: k < CONSUMERS -> consumerAsleep[k] = false; k++ :: else -> break od; k = 0 }
}

proctype Producer(byte me) {
  byte e, d, m, id = me * FRAMES + 1;
  bool was;
  do
  :: id > (me + 1) * FRAMES -> break
  :: else ->
look:
    if :: producerShut -> goto done :: else fi;
again:
#ifdef UNWRAPPED
    atomic { e = enqueue; m = enqueueMoves };
#else
    e = enqueue;
#endif
    d = dequeue;
    if :: FULL(e, d) -> goto isFull :: else fi;
    if
    :: slot[e] != 0 ->
      /* Spins; each turn looks at everything anew. */
      (slot[e] == 0 || enqueue != e || FULL(e, dequeue) || producerShut);
      if :: producerShut -> goto done :: else -> goto again fi
    :: else
    fi;
    atomic {
      was = UNMOVED(enqueue, enqueueMoves, e);
      if :: was -> enqueue = (e + 1) & MASK; MOVE(enqueueMoves) :: else fi
    };
    if
    :: !was -> if :: producerShut -> goto done :: else -> goto again fi
    :: else
    fi;
    slot[e] = id;
    atomic { was = consumerWoken; consumerWoken = true };
    if :: !was -> wakeConsumers() :: else fi;
    atomic { id++; e = 0; d = 0; m = 0; was = false; goto next };
isFull:
    if :: producerShut -> goto done :: else fi;
    atomic { was = producerWoken; producerWoken = false };
    if :: was -> goto look :: else fi;
    atomic {
#ifndef NAIVE_WAIT
      if
      :: producerWoken || producerShut
      :: else -> producerAsleep[me] = true
      fi
#else
      producerAsleep[me] = true
#endif
    };
    (!producerAsleep[me]);
    goto look;
next:
    skip
  od;
done:
  writing--
}

proctype Consumer(byte me) {
  byte d, e, m, v;
  bool was;
look:
  if :: consumerShut -> goto done :: else fi;
again:
#ifdef UNWRAPPED
  atomic { d = dequeue; m = dequeueMoves };
#else
  d = dequeue;
#endif
  e = enqueue;
  if :: d == e -> goto isEmpty :: else fi;
  v = slot[d];
  if
  :: v == 0 ->
    (slot[d] != 0 || dequeue != d || enqueue == d || consumerShut);
    if :: consumerShut -> goto done :: else -> goto again fi
  :: else
  fi;
  atomic {
    was = UNMOVED(dequeue, dequeueMoves, d);
    if :: was -> dequeue = (d + 1) & MASK; MOVE(dequeueMoves) :: else fi
  };
  if
  :: !was -> if :: consumerShut -> goto done :: else -> goto again fi
  :: else
  fi;
  slot[d] = 0;
  atomic { was = producerWoken; producerWoken = true };
  if :: !was -> wakeProducers() :: else fi;
  atomic {
    assert(!seen[v]);
    seen[v] = true;
    received++;
    d = 0; e = 0; m = 0; v = 0; was = false
  };
  goto look;
isEmpty:
  if :: consumerShut -> goto done :: else fi;
  atomic { was = consumerWoken; consumerWoken = false };
  if :: was -> goto look :: else fi;
  atomic {
#ifndef NAIVE_WAIT
    if
    :: consumerWoken || consumerShut
    :: else -> consumerAsleep[me] = true
    fi
#else
    consumerAsleep[me] = true
#endif
  };
  (!consumerAsleep[me]);
  goto look;
done:
  skip
}

init {
  byte i;
  atomic {
    i = 0;
    do :: i < PRODUCERS -> run Producer(i); i++ :: else -> break od;
    i = 0;
    do :: i < CONSUMERS -> run Consumer(i); i++ :: else -> break od
  };
#ifndef EARLY_STOP
  (writing == 0 && received == TOTAL);
#else
  /* As zorlib_q_shutdown does it for the other side. */
  producerShut = true;
  wakeProducers();
#endif
  consumerShut = true;
  wakeConsumers()
}
