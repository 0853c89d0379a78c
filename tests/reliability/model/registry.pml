/*
 * Records, their instances, the module that they share, and the loader's object for it, over a gate
 * that is what gate.pml shows it to be: readers or one writer, and the step from writer to reader
 * without a gap.
 *
 * Thread 0 registers and unregisters two keys of one module (the coordinator's mutex lets one thread
 * at a time), OWNER_TURNS times in any order, and at last unregisters both, which is the stop. The
 * others create, USER_TURNS times, destroy and query; each has one instance at most. A create may
 * destroy the thread's instance from inside the module, whose unload is put off then.
 *
 * What a mutex, or the gate as a writer, covers whole and nobody reads without it is one step.
 *
 * A comment "@ name" says which sync point of the sources the step below it follows or precedes.
 *
 * Memory. Two stores have no fence of their own: a count that is lowered and a guard that is shown.
 * Each waits in its thread's buffer until a fence, or until somebody who looks happens to see it.
 *
 * What is left out: a load from inside a module (tests have it), memory that runs out, the table of
 * instances (that an instance is there, and taken once, is one step).
 *
 * Wrong on purpose, each to be refuted: UNLOCK_BEFORE_REFERENCE, NO_SECOND_LOOK, KEY_IS_ENOUGH,
 * NO_GUARD, NO_COUNT_FENCE, NO_BURIAL_FENCE, NO_PIN.
 */
#ifndef N
#define N 3
#endif
#ifndef OWNER_TURNS
#define OWNER_TURNS 3
#endif
#ifndef USER_TURNS
#define USER_TURNS 2
#endif
#define KEYS 2
#ifndef RECORDS
#define RECORDS 3
#endif
#define NONE 15

/* The gate. */
byte readers;
bit writer;

/* Records; a deleted one's place is taken by the next. */
byte table[KEYS] = NONE;
bit alive[RECORDS];
bit key[RECORDS];
bit unregistered[RECORDS];
bit loaded[RECORDS];
bit had_instances[RECORDS];
byte count[RECORDS];
byte pins[RECORDS];
bit is_put_off[RECORDS];
bit buried[RECORDS];
byte graves;
bit loading[RECORDS];

/* Threads: the record of the thread's instance, what it has lowered that nobody sees yet, and what
 * it guards, as it is and as others see it. */
byte instance[N] = NONE;
byte lowered[N] = NONE;
byte guards[N] = NONE;
byte guards_seen[N] = NONE;
byte ended;

/* The loader's object, the module. */
bit object;
byte references;
byte loads;
bit mapped;

#define CALL(r) assert(alive[r] && loaded[r] && object && mapped)
#define USE(r) assert(alive[r])
#ifdef KEY_IS_ENOUGH
#define IS_OWN(found, r) true
#else
#define IS_OWN(found, r) (found == r)
#endif

inline Lock(mutex) { atomic { !mutex -> mutex = 1 } }
inline LeaveAsReader() { readers-- }
inline Downgrade() { atomic { writer = 0; readers++ } }

inline Settle(t) {
    if
    :: lowered[t] != NONE -> count[lowered[t]]--; lowered[t] = NONE
    :: else
    fi;
    guards_seen[t] = guards[t]
}
inline FullFence() { Settle(me) }
inline HeavyFence() {
    i = 0;
    do
    :: i < N -> Settle(i); i++
    :: else -> break
    od;
    i = 0
}
inline Lower(r) {
    /* The one before it has been seen by then. */
    atomic {
        if
        :: lowered[me] != NONE -> count[lowered[me]]--
        :: else
        fi;
        lowered[me] = r
    }
}
/* Looks at the counter; others' stores may have come out by then. */
inline HasInstances(r) {
    atomic {
        FullFence();
        i = 0;
        do
        :: i < N ->
            if
            :: lowered[i] == r -> Settle(i)
            :: true
            fi;
            i++
        :: else -> break
        od;
        i = 0;
        has = (count[r] > 0)
    }
}

inline LoadPlugin() {
    /*@ loader.load.has_mutex */
    atomic {
        if
        :: !object -> object = 1
        :: else
        fi;
#ifndef UNLOCK_BEFORE_REFERENCE
        references++
#endif
    };
#ifdef UNLOCK_BEFORE_REFERENCE
    references++;
#endif
    /*@ loader.load.referenced */
    atomic {
        assert(object);
        loads++;
        if
        :: loads == 1 -> assert(!mapped); mapped = 1
        :: else -> assert(mapped)
        fi
    }
    /*@ module.load.tried */
}
inline UnloadPlugin() {
    /*@ module.unload.counted */
    atomic {
        assert(object && mapped && loads > 0);
        loads--;
        if
        :: loads == 0 -> mapped = 0
        :: else
        fi
    };
    /*@ loader.unload.unloaded */
    atomic {
        assert(object && references > 0);
        references--;
        /*@ loader.unload.unreferenced */
        if
        :: references == 0 -> assert(!mapped); object = 0
        :: else
        fi
    }
}

inline LoadRecord(r) {
    /*@ record.load.asks */
    USE(r);
    if
    :: loaded[r]
    :: else ->
        Lock(loading[r]);
        /*@ record.load.has_mutex */
        if
        :: loaded[r] -> loading[r] = 0
        :: else ->
            LoadPlugin();
            /*@ record.load.loaded */
            atomic { USE(r); FullFence(); loaded[r] = 1; loading[r] = 0 }
            /*@ record.load.kept */
        fi
    fi
}
inline UnloadRecord(r) {
    /*@ record.unload.asks */
    USE(r);
    if
    :: !loaded[r]
    :: else ->
        Lock(loading[r]);
        UnloadPlugin();
        /*@ record.unload.unloaded */
        atomic { USE(r); loaded[r] = 0; loading[r] = 0 }
    fi
}

inline Delete(r) {
    USE(r);
    assert(count[r] == 0 && !loaded[r]);
    alive[r] = 0; key[r] = 0; unregistered[r] = 0; had_instances[r] = 0
}
/* What nobody looks at is deleted. */
inline Sweep() {
    if
    :: atomic {
        graves > 0 ->
        graves--;
        swept = 0;
        do
        :: swept < RECORDS && !buried[swept] -> swept++
        :: else -> break
        od;
        assert(swept < RECORDS);
        buried[swept] = 0 };
        /*@ graveyard.sweep.looks */
        atomic {
            has = 0;
            i = 0;
            do
            :: i < N ->
                if
                :: true
                :: guards_seen[i] != guards[i] -> guards_seen[i] = guards[i]
                fi;
                has = has || (guards_seen[i] == swept);
                i++
            :: else -> break
            od
        };
        atomic {
            has = has || pins[swept] > 0;
            if
            :: has -> buried[swept] = 1; graves++
            :: else -> Delete(swept)
            fi;
            has = 0; i = 0; swept = 0
        }
        /*@ graveyard.sweep.done */
    :: else
    fi
}
inline Bury(r) {
    if
    :: !had_instances[r] -> atomic { Delete(r) }
    :: else ->
        /*@ graveyard.record.comes */
#ifndef NO_BURIAL_FENCE
        atomic { HeavyFence() };
#endif
        atomic { buried[r] = 1; graves++ };
        /*@ graveyard.record.in */
        Sweep()
    fi
}

/* The unload that live instances put off, looked at twice. */
inline UnloadPutOff(r) {
    atomic {
        !writer && readers == 0 -> FullFence();
        /*@ unload.put_off.looks */
        HasInstances(r);
        USE(r);
#ifdef NO_SECOND_LOOK
        found = r;
#else
        found = table[key[r]];
        if
        :: found != NONE && IS_OWN(found, r) && !has && unregistered[r]
        :: else -> found = NONE
        fi;
#endif
        has = 0;
        if
        :: found != NONE -> table[key[found]] = NONE; readers++
        :: else
        fi
    };
    if
    :: found == NONE
    :: else ->
        /*@ unload.put_off.unloads */
        UnloadRecord(found);
        LeaveAsReader();
        Bury(found)
    fi;
    found = NONE
}

/* The thread's instance goes; inside a read its unload is put off to the end of that. */
inline Destroy(is_inside) {
    /*@ destroy.call.begins */
    atomic {
        mine = instance[me];
        instance[me] = NONE;
#ifndef NO_GUARD
        guards[me] = mine
#endif
    };
    /*@ destroy.entry.taken */
    CALL(mine);
    /*@ record.instance.destroyed */
    atomic { CALL(mine); Lower(mine) };
    /*@ destroy.instance.gone */
    atomic { USE(mine); has = !unregistered[mine] };
    if
    :: has
    :: else -> atomic { USE(mine); HasInstances(mine) }
    fi;
    if
    :: has -> has = 0
    :: else ->
        /*@ destroy.record.is_due */
        if
        :: is_inside -> atomic {
            if
            :: is_put_off[mine]
            :: else ->
                is_put_off[mine] = 1;
#ifndef NO_PIN
                pins[mine]++;
#endif
                task = mine
            fi }
            /*@ unload.put_off.handed_over */
        :: else -> UnloadPutOff(mine)
        fi
    fi;
    /*@ record.use.ends */
    atomic { guards[me] = NONE; mine = NONE };
    Sweep()
}

inline RunPutOff() {
    USE(task);
    is_put_off[task] = 0;
    /*@ unload.put_off.runs */
    UnloadPutOff(task);
    USE(task);
    /*@ record.pin.goes */
#ifndef NO_PIN
    pins[task]--;
#endif
    task = NONE;
    Sweep()
}

inline Create() {
    atomic {
        turns++;
        if
        :: k = 0
        :: k = 1
        fi
    };
    atomic {
        !writer -> readers++;
        r = table[k];
        k = 0;
        if
        :: r != NONE ->
            if
            :: unregistered[r] -> r = NONE
            :: else
            fi
        :: else
        fi
    };
    if
    :: r == NONE
    :: else ->
        /*@ create.record.found */
        LoadRecord(r);
        CALL(r);
        if
        :: instance[me] != NONE -> Destroy(1)
        :: else
        fi;
        atomic { CALL(r); count[r]++; had_instances[r] = 1 };
        /*@ create.instance.made */
        instance[me] = r
        /*@ create.instance.entered */
    fi;
    atomic { r = NONE; LeaveAsReader() };
    if
    :: task != NONE -> RunPutOff()
    :: else
    fi
}

/* Of an instance that another thread may be destroying; the module is not asked. */
inline Query() {
    r = instance[1 + (me % (N - 1))];
    if
    :: r == NONE
    :: else ->
        /*@ query.record.found */
        guards[me] = r;
        if
        :: instance[1 + (me % (N - 1))] == r ->
            /*@ query.record.kept */
            USE(r);
            USE(r)
        :: else
        fi;
        guards[me] = NONE;
        Sweep()
    fi;
    r = NONE
}

proctype User(byte me) {
    byte i, k, swept, turns;
    byte r = NONE, mine = NONE, task = NONE, found = NONE;
    bit has;
    do
    :: turns < USER_TURNS -> Create()
    :: instance[me] != NONE -> Destroy(0)
    :: Query()
    :: instance[me] == NONE -> break
    od;
    atomic { FullFence(); turns = 0; ended++ }
}

inline Register() {
    atomic {
        !writer && readers == 0 -> FullFence();
        r = table[k];
        if
        :: r == NONE ->
            r = 0;
            do
            :: r < RECORDS && alive[r] -> r++
            :: else -> break
            od;
            if
            :: r < RECORDS -> alive[r] = 1; key[r] = k; table[k] = r
            :: else -> r = NONE
            fi
        :: else -> unregistered[r] = 0
        fi;
        k = 0;
        /*@ registry.register.entered */
        readers++
    };
    /*@ registry.register.loads */
    if
    :: r != NONE -> LoadRecord(r)
    :: true
    fi;
    atomic { LeaveAsReader(); r = NONE }
}

inline Unregister() {
    atomic {
        !writer && readers == 0 -> writer = 1; FullFence();
        r = table[k];
        k = 0;
        if
        :: r == NONE -> writer = 0
        :: else -> unregistered[r] = 1
        fi
    };
    if
    :: r == NONE
    :: else ->
        /*@ registry.unregister.marked */
        atomic {
#ifndef NO_COUNT_FENCE
            if
            :: had_instances[r] -> HeavyFence()
            :: else
            fi;
#endif
            HasInstances(r)
        };
        if
        :: has ->
            /*@ registry.unregister.puts_off */
            writer = 0
        :: else ->
            /*@ registry.unregister.taken */
            atomic { table[key[r]] = NONE; Downgrade() };
            /*@ registry.unregister.unloads */
            UnloadRecord(r);
            LeaveAsReader();
            Bury(r)
        fi;
        has = 0
    fi;
    r = NONE
}

proctype Owner(byte me) {
    byte i, k, swept, turns;
    byte r = NONE;
    bit has;
    do
    :: atomic { turns < OWNER_TURNS -> turns++; k = 0 }; Register()
    :: atomic { turns < OWNER_TURNS -> turns++; k = 1 }; Register()
    :: atomic { turns < OWNER_TURNS -> turns++; k = 0 }; Unregister()
    :: atomic { turns < OWNER_TURNS -> turns++; k = 1 }; Unregister()
    :: break
    od;
    turns = 0;
    Unregister();
    k = 1;
    Unregister();
    ended++
}

init {
    byte t;
    atomic {
        run Owner(0);
        t = 1;
        do
        :: t < N -> run User(t); t++
        :: else -> break
        od
    };
    atomic {
        ended == N;
        /* After the stop and the last instance nothing is left but what the graveyard deletes. */
        assert(table[0] == NONE && table[1] == NONE);
        assert(!mapped && !object && references == 0 && loads == 0);
        assert(readers == 0 && !writer);
        for (t : 0 .. RECORDS - 1) { assert(!alive[t] || (buried[t] && !loaded[t] && pins[t] == 0)) }
    }
}
