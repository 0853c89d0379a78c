/*
 * The registry's gate, step by step as src/common/RegistryGate.cpp has it. N threads read and write
 * as they like, for ever or until they choose to end.
 *
 * A comment "@ name" says which sync point of the sources the step below it follows or precedes.
 *
 * Memory. What a thread stores in its place goes through a store buffer of two entries, which empties
 * when it likes: as nobody else can tell when it did, that is decided when somebody looks. Everything
 * else that the gate changes is changed by one locked instruction, which empties the thread's own
 * buffer first. A light fence does nothing to a buffer, a full fence empties the thread's own, and
 * a heavy fence those of all threads.
 *
 * Time. A wait ends by a post alone, unless SLICES is defined: then a slice may end at any moment, and
 * a wait between two slices too. With SLICERS only the slices of so many threads end, the first ones.
 * Where no slice ends a wake-up that is lost is a deadlock, which spin finds.
 *
 * What is left out: the turn for readers (it only delays), cancelled threads, what is put off. The
 * gate's counter of further reads may be taken, in place of the place, by the last thread alone. The writer's looks
 * are as many as it likes before it sleeps.
 *
 * HELPER     the last thread reads only when an outer read of another thread asks it to, and that
 *            one waits for it. Needs SLICES.
 * WRITERS    how many of the threads write, the first ones; all of them if it is not defined.
 * FAIR       thread 0 writes and the others read, without end; there are no buffers, and the mutex
 *            lets threads in as they came: for the claim that a writer comes in.
 * Wrong on purpose, each to be refuted: NESTED_BLOCKS, NO_FENCE, NO_STRICT_FENCE, NO_SLEEP_FENCE,
 * NO_SECOND_LOOK, KEEPS_POST with SLICES and SLICERS=1, HELPER without SLICES, and FAIR with
 * ANY_ORDER, a mutex that is not fair.
 */
#ifndef N
#define N 3
#endif
#ifndef WRITERS
#define WRITERS N
#endif
#ifndef SLICERS
#define SLICERS N
#endif
#define MAX_POSTS 3
#define NOBODY 255

byte writers;   /* attention_: kWriter for each */
bit strict;     /* attention_: kStrict */
byte sleepers;
byte counted;
byte posts;     /* of drained_; MAX_POSTS means as many or more */
#if defined(FAIR) && !defined(ANY_ORDER)
#define IN_ORDER
#endif
#ifdef IN_ORDER
chan queue = [N] of { byte };
#else
byte mutex = NOBODY;
#endif

/* Places: what others see, and what is still in the owner's buffer, oldest first. */
bit place[N];
byte pending[N];
bit first[N];
bit second[N];

/* What is really so, for the assertions alone. */
byte reading;
byte writing;
#ifdef HELPER
bit asked;
bit helped;
#endif
#ifdef FAIR
bit wants;      /* thread 0 is counted as a writer and not in */
#endif

inline Empty(i) {
    if
    :: pending[i] == 2 -> place[i] = second[i]
    :: pending[i] == 1 -> place[i] = first[i]
    :: else
    fi;
    pending[i] = 0; first[i] = 0; second[i] = 0
}
inline EmptyOne(i) {
    place[i] = first[i]; first[i] = second[i]; second[i] = 0; pending[i]--
}
inline StoreInPlace(value) {
    d_step {
        if
#ifdef FAIR
        :: true -> place[me] = value
#else
        :: pending[me] == 2 -> place[me] = first[me]; first[me] = second[me]; second[me] = value
        :: pending[me] == 1 -> second[me] = value; pending[me] = 2
        :: else -> first[me] = value; pending[me] = 1
#endif
        fi
    }
}
inline HeavyFence() {
    i = 0;
    do
    :: i < N -> Empty(i); i++
    :: else -> break
    od;
    i = 0
}

inline Lock() {
#ifdef IN_ORDER
    queue!me;
    queue?[eval(me)]
#else
    atomic { mutex == NOBODY -> mutex = me }
#endif
}
inline Unlock() {
#ifdef IN_ORDER
    queue?eval(me)
#else
    mutex = NOBODY
#endif
}
inline Post() {
    if
    :: posts < MAX_POSTS -> posts++
    :: else
    fi
}
inline TakePost() {
    if
    :: posts > 0 -> posts--
#ifndef FAIR
    :: posts == MAX_POSTS
#endif
    fi
}

inline Show() {
    if
    :: StoreInPlace(1); in_place = 1
    :: d_step { me == N - 1 -> Empty(me); counted++; in_place = 0 }
    fi
}
inline TakeBack() {
    atomic {
        if
        :: is_in -> is_in = 0; reading--
        :: else
        fi;
        if
        :: in_place -> in_place = 0; StoreInPlace(0)
        :: else -> Empty(me); counted--
        fi
    };
    /*@ gate.reader.hidden */
    atomic {
        if
        :: sleepers != 0 -> Empty(me); Post()
        :: else
        fi
    }
    /*@ gate.reader.looked_for_sleepers */
}
inline ComeIn() {
    d_step { reading++; is_in = 1; assert(writing == 0) }
    /*@ gate.reader.in */
}

/* Let in, or not: then it has taken itself back. */
inline TryToRead() {
    Show();
    /*@ gate.reader.shown */
    atomic {
        if
        :: writers == 0 && strict == 0 -> ComeIn()
        :: writers == 0 && strict == 1 -> marked = 1
        :: else
        fi
    };
    /*@ gate.reader.looked */
    if
    :: marked ->
        marked = 0;
#ifndef NO_STRICT_FENCE
        d_step { Empty(me) };
#endif
        atomic {
            if
            :: writers == 0 && strict == 1 -> ComeIn()
            :: else
            fi
        };
        /*@ gate.reader.looked_strictly */
        if
        :: is_in -> atomic {
            /* The thread has passed often enough, or not. */
            if
            :: writers == 0 && strict == 1 -> Empty(me); strict = 0
            :: true
            fi }
        :: else
        fi
    :: else
    fi;
    if
    :: is_in
    :: else -> TakeBack()
    fi
}

inline EnterAsReader() {
    TryToRead();
    /*@ gate.reader.turned_away */
    do
    :: is_in -> break
    :: !is_in && writers == 0 ->
        /*@ gate.reader.shown_again */
        TryToRead()
    :: !is_in ->
        /*@ gate.reader.queues */
        Lock();
        Show();
        ComeIn();
        /*@ gate.reader.has_mutex */
        do
        :: atomic { posts > 0 -> TakePost() }
        :: posts == 0 -> break
        od;
        /* An unlock is a locked instruction. */
        atomic { Empty(me) };
        Unlock();
        break
    od
}

inline Nested() {
#ifdef NESTED_BLOCKS
    writers == 0
#else
    skip
#endif
}

inline Read() {
    EnterAsReader();
    if
    :: true
    :: true -> Nested()
#ifdef HELPER
    :: atomic { me == 0 && !asked && !helped -> asked = 1 };
        atomic { helped -> helped = 0 }
#endif
    fi;
    TakeBack()
}

/* One place after the other; sees is what it comes to. */
inline Look() {
    atomic { sees = (counted > 0); i = 0 };
    do
    :: i < N && !sees -> atomic {
        if
        :: true
        :: pending[i] > 0 -> EmptyOne(i)
        :: pending[i] == 2 -> Empty(i)
        fi;
        sees = place[i];
        i++ }
    :: else -> break
    od;
    i = 0
}

inline WaitForReaders() {
    /*@ gate.writer.waits */
    d_step { Empty(me); sleepers++ };
#ifndef NO_SLEEP_FENCE
    d_step { HeavyFence() };
#endif
    /*@ gate.writer.asleep */
#ifdef NO_SECOND_LOOK
    atomic { posts > 0 -> TakePost() };
#endif
    do
    :: Look();
        if
        :: !sees -> break
        :: else -> sees = 0
        fi;
        /*@ gate.writer.sleeps */
        if
        :: atomic { posts > 0 -> TakePost() }
#ifdef SLICES
        :: me < SLICERS ->
            Unlock();
            /*@ gate.writer.gives_up_slice */
            if
            :: atomic { posts > 0 -> TakePost() };
#ifndef KEEPS_POST
                atomic { Post() }
#endif
            :: true
            fi;
            Lock()
            /*@ gate.writer.has_mutex_again */
#endif
        fi
        /*@ gate.writer.woken */
    od;
    atomic { Empty(me); sleepers-- }
}

inline EnterAsWriter() {
    /*@ gate.writer.leaves_a_turn */
    /*@ gate.writer.comes */
    d_step { Empty(me); writers++ };
    /*@ gate.writer.counted */
#ifdef FAIR
    if
    :: me == 0 -> wants = 1
    :: else
    fi;
#endif
    Lock();
    /*@ gate.writer.has_mutex */
    atomic { Empty(me); marked = !strict; strict = 1 };
    if
    :: marked ->
        marked = 0;
#ifndef NO_FENCE
        d_step { HeavyFence() }
#endif
    :: else
    fi;
    /*@ gate.writer.fenced */
    do
    :: Look();
        if
        :: !sees -> break
        :: else -> sees = 0
        fi
    :: WaitForReaders(); break
    od;
    atomic {
        writing++;
        assert(writing == 1);
        assert(reading == 0)
#ifdef FAIR
        ;
        if
        :: me == 0 -> wants = 0
        :: else
        fi
#endif
    }
    /*@ gate.writer.in */
}

inline LeaveAsWriter() {
    d_step {
        assert(reading == 0);
        writing--;
        reading = reading + is_in;
        Empty(me);
        writers--
    };
    /*@ gate.writer.uncounted */
    Unlock()
    /*@ gate.writer.left */
}

inline Write() {
    EnterAsWriter();
    if
    :: LeaveAsWriter()
    :: atomic { is_in = 1; Show() };
        /*@ gate.writer.shown */
        LeaveAsWriter();
        /*@ gate.writer.downgraded */
        TakeBack()
    fi
}

proctype Thread(byte me) {
    byte i;
    bit in_place, is_in, marked, sees;
#ifdef FAIR
    /* Thread 0 always writes, the others always read: what could keep a writer out for ever. */
    do
    :: me == 0 -> Write()
    :: me != 0 && me < WRITERS -> Write()
    :: me != 0 -> Read()
    od
#else
    do
    :: Read()
    :: me < WRITERS -> Write()
    :: break
    od
#endif
}

#ifdef HELPER
proctype Helper(byte me) {
    byte i;
    bit in_place, is_in, marked, sees;
end:
    do
    :: asked -> EnterAsReader(); TakeBack(); atomic { asked = 0; helped = 1 }
    od
}
#endif

init {
    byte t;
    atomic {
        do
        :: t < N ->
#ifdef HELPER
            if
            :: t == N - 1 -> run Helper(t)
            :: else -> run Thread(t)
            fi;
#else
            run Thread(t);
#endif
            t++
        :: else -> break
        od
    }
}

#ifdef FAIR
ltl a_writer_comes_in { [] (wants -> <> !wants) }
#endif
