/*
 * Start and stop: the word with users and phase, the global mutex, the coordinator's "running", its
 * mutexes, the timer's thread and who joins it, over a gate of which only "a writer waits for
 * readers" is kept. N - 1 threads start, stop, and call a plug-in TURNS times each; thread N is the
 * timer's, with ROUNDS rounds of changes. A plug-in call may start and stop inside, also on the
 * timer's thread, to which a thread can leave one of its starts to be taken back.
 *
 * A comment "@ name" says which sync point of the sources the step below it follows or precedes.
 *
 * What is left out: starts that fail for want of memory or threads, the end of the process.
 *
 * Wrong on purpose, each to be refuted: JOIN_UNDER_MUTEX, STOP_INSIDE, JOINS_ITSELF.
 */
#ifndef N
#define N 3
#endif
#ifndef TURNS
#define TURNS 2
#endif
#ifndef ROUNDS
#define ROUNDS 2
#endif

mtype = { idle, starting, stopping };

mtype phase = idle;
byte users;
bit global;
bit run_mutex;
bit coordinator;
bit timer;
bit running;
bit registered;
byte readers;

bit has_handle;     /* the timer's thread has not been joined */
bit wake;
bit is_dead = 1;
bit has_ended;      /* the closure stopped its own timer */
bit ticks;          /* the timer's running_ */
byte left;          /* starts that the timer's thread may take back */
byte ended;
byte stops;

#ifdef JOINS_ITSELF
#define OWN false
#else
#define OWN (me == N - 1)
#endif
#define LOCK(mutex) atomic { !mutex -> mutex = 1 }

inline Join() {
    /*@ timer.thread.joins */
    wake = 1;
    is_dead;
    /*@ timer.thread.joined */
    atomic { has_handle = 0; wake = 0 }
}

inline Start() {
    /*@ life.start.is_claimed */
    if
    :: running
    :: else ->
        /*@ coordinator.run.asks */
        LOCK(run_mutex);
        LOCK(coordinator);
        /*@ coordinator.run.has_mutexes */
        if
        :: running
        :: else ->
            running = 1;
            /*@ coordinator.run.says_so */
            atomic { readers == 0 -> registered = 1 };
            if
            :: OWN -> atomic { has_ended = 0; ticks = 1 }
                /*@ timer.start.inside */
            :: else ->
                /*@ timer.start.asks */
                LOCK(timer);
                /*@ timer.start.has_mutex */
                if
                :: has_handle -> Join()
                :: else
                fi;
                atomic { has_handle = 1; is_dead = 0; has_ended = 0; ticks = 1 };
                /*@ timer.start.has_thread */
                timer = 0
            fi
        fi;
        coordinator = 0;
        run_mutex = 0
    fi
    /*@ life.start.runs */
}

inline Stop() {
    /*@ life.stop.is_claimed */
    if
    :: !running
    :: else ->
        /*@ coordinator.shutdown.asks */
        LOCK(run_mutex);
        /*@ coordinator.shutdown.has_run_mutex */
        LOCK(coordinator);
        running = 0;
#ifndef JOIN_UNDER_MUTEX
        coordinator = 0;
#endif
        /*@ coordinator.shutdown.says_so */
        /*@ monitor.stop.asks */
        if
        :: OWN -> atomic { has_ended = 1; ticks = 0 }
            /*@ timer.stop.inside */
        :: !OWN && ticks ->
            /*@ timer.stop.asks */
            LOCK(timer);
            /*@ timer.stop.has_mutex */
            if
            :: ticks && has_handle -> Join()
            :: else
            fi;
            atomic { ticks = 0; timer = 0 }
        :: !OWN && !ticks
        fi;
        /*@ coordinator.shutdown.stopped */
#ifndef JOIN_UNDER_MUTEX
        LOCK(coordinator);
#endif
        atomic { readers == 0 -> registered = 0; stops++ };
        /*@ coordinator.shutdown.unregistered */
        coordinator = 0;
        run_mutex = 0
    fi
    /*@ life.stop.is_over */
}

inline InitOutside() {
    /*@ life.global.asks */
    LOCK(global);
    /*@ life.global.has_mutex */
    if
    /*@ life.phase.waits */
    :: atomic { phase == idle && users > 0 -> users++ }
    :: atomic { phase == idle && users == 0 -> phase = starting };
        Start();
        atomic { users++; phase = idle }
        /*@ life.phase.is_idle */
    fi;
    atomic { mine++; global = 0 }
}
inline UninitOutside() {
    LOCK(global);
    if
    :: atomic { phase == idle && users > 1 -> users-- }
    :: atomic { phase == idle && users == 0 -> skip }
    :: atomic { phase == idle && users == 1 -> users = 0; phase = stopping };
        Stop();
        phase = idle
    fi;
    atomic { mine--; global = 0 }
}

/* Inside a plug-in call, which reads the registry. */
inline InitInside() {
    if
    /*@ life.init.looked_inside */
    :: atomic { phase == stopping -> skip }
    :: atomic { phase == starting || (phase == idle && users > 0) -> users++; mine++ }
    :: atomic { phase == idle && users == 0 -> phase = starting };
        if
        :: running -> Start(); atomic { users++; mine++; phase = idle }
        :: else -> atomic { users = 0; phase = idle }
        fi
    fi
}
/* Counts one down, and leaves the stop to the end of the outermost frame. */
inline UninitInside() {
    /*@ life.uninit.looked_inside */
    atomic {
        if
        :: users > 0 ->
            users--;
            at_end = at_end || users == 0
        :: else
        fi
    };
#ifdef STOP_INSIDE
    FrameEnds()
#endif
}
inline FrameEnds() {
    if
    :: at_end ->
        at_end = 0;
        /*@ life.stop.is_due */
        if
        :: !running
        :: else ->
            if
            :: atomic { phase == idle && users == 0 -> phase = stopping };
                if
                :: running -> Stop()
                :: else
                fi;
                atomic { users = 0; phase = idle }
            :: atomic { phase != idle || users != 0 -> skip }
            fi
        fi
    :: else
    fi
}

proctype Thread(byte me) {
    byte mine, turns;
    bit at_end;
    do
    :: turns < TURNS && mine < 2 -> turns++; InitOutside()
    :: mine > 0 -> UninitOutside()
    :: atomic { turns < TURNS && mine > 0 && left == 0 -> turns++; mine--; left++ }
    :: atomic { turns < TURNS && registered -> turns++; readers++ };
        if
        :: mine < 2 -> InitInside()
        :: mine > 0 -> UninitInside(); mine--
        :: true
        fi;
        readers--;
        FrameEnds()
    :: mine == 0 -> break
    od;
    atomic { turns = 0; ended++ }
}

proctype Timer(byte me) {
    byte mine, rounds;
    bit at_end;
end:
    do
    :: atomic { has_handle && !is_dead && (wake || has_ended) -> is_dead = 1 }
    :: atomic { has_handle && !is_dead && !wake && !has_ended && rounds < ROUNDS -> rounds++ };
        /*@ timer.round.begins */
        /*@ coordinator.round.begins */
        if
        :: !running
        :: else ->
            /*@ coordinator.round.asks */
            LOCK(coordinator);
            /*@ coordinator.round.has_mutex */
            if
            :: !running
            :: else ->
                atomic { readers == 0 -> registered = 1; readers++ };
                if
                :: mine == 0 -> InitInside()
                :: mine > 0 -> UninitInside(); mine--
                :: left > 0 -> left--; UninitInside()
                :: true
                fi;
                readers--
            fi;
            /*@ coordinator.round.done */
            coordinator = 0
        fi;
        FrameEnds()
        /*@ timer.round.ended */
    :: atomic { mine > 0 && rounds == ROUNDS -> mine--; left++; rounds++ }
    od
}

init {
    byte t;
    atomic {
        do
        :: t < N - 1 -> run Thread(t); t++
        :: else -> break
        od;
        run Timer(N - 1)
    };
    ended == N - 1;
    /* What the timer's thread was left may still be counted; without users nothing is left. */
end:
    atomic {
        timeout;
        assert(phase == idle && !global && !run_mutex && !coordinator && !timer && readers == 0);
        assert(users > 0 || (!running && !registered && (is_dead || !has_handle)))
    }
}
