/*
 * A model of what the module shares between threads: the contexts of calls with their
 * references, the registry, the locks, the descriptor of the socket, and the object in
 * memory. Spin visits every order of the steps below. scripts/model.sh runs the
 * configurations of configurations.txt.
 *
 * A proctype is a thread of the host. An inline of the part "the module" is a function of
 * the module; the comment "code:" above it names the file, the function, and what of it is
 * modelled, in the order of the source. A test compares these comments with the sources.
 *
 * A statement, or an atomic block, is one step. A step holds one access to what threads
 * share without a lock. Accesses under one lock that every other thread takes too may
 * share a step, and so may those to what no other thread can reach yet. Memory is
 * sequentially consistent.
 *
 * Switches:
 *
 *   sizes          CALLS; RUNS of the application by a call; COMMANDS on the API; STRAYS,
 *                  which are destroy events that belong to no call; RELOADS of the module;
 *                  FILES that other code opens; CONTEXTS, the memory for them
 *   ALLOW_...      the host, or somebody who talks to it, does this
 *   ASSUME_...     the host never does this, though nothing keeps it from it
 *   HOST_...       the host breaks a rule that the module relies on
 *   WRONG_...      the module has this fault
 */

#ifndef CALLS
#define CALLS 1
#endif
#ifndef RUNS
#define RUNS 1
#endif
#ifndef COMMANDS
#define COMMANDS 0
#endif
#ifndef STRAYS
#define STRAYS 0
#endif
#ifndef RELOADS
#define RELOADS 0
#endif
#ifndef FILES
#define FILES 0
#endif
#ifndef CONTEXTS
#define CONTEXTS (CALLS * RUNS + COMMANDS)
#endif

/* Calls have one key when one UUID is used twice, when two texts decode to the same 16
 * bytes, or when two UUIDs have the same CRC-64. */
#ifdef ALLOW_SAME_KEY
#define CALL_KEYS 1
#define KEY(call) 0
#else
#define CALL_KEYS CALLS
#define KEY(call) (call)
#endif

/* A session can have a second name, under which a command finds it. Its end is announced
 * under its UUID alone. */
#ifdef ALLOW_SECOND_NAME
#define KEYS (CALL_KEYS + 1)
#else
#define KEYS CALL_KEYS
#endif

#define NONE 255
#define NOBODY 0
#define ME (_pid + 1)

/* ==== what the module keeps ========================================================= */

typedef Context {
    bit not_freed;       /* Memory is never given out a second time. */
    bit configured;      /* created_time is not 0. */
    bit start_sent;
    byte session;        /* session_uuid_: the call, or NONE. */
    byte key;            /* `id`; NONE until the application writes it. */
    byte references;     /* ReferenceCountable::references_ */
    byte lent;           /* AppContext::lent_ */
    byte closed_bugs;    /* AppContext::closed_bugs_ */
    byte lock;           /* context_lock: who holds it. */
    bit being_written;   /* The application writes the options, without a lock. */
    byte frames;         /* Frames of its bug that are on their way. */
    bit start_left;      /* The start packet has been sent, */
    bit terminate_left;  /* and the terminate packet, with or without success. */
};

Context context[CONTEXTS];
byte contexts_made;

byte entry[KEYS];        /* The registry: NOBODY, or the index of a context plus 1. */
byte registry_lock;      /* contexts_lock: who holds it. */
bit other_name[KEYS];    /* other_names: this call has been found under its second name. */
byte attached_bugs;      /* AttachedBugs::count_ */
byte bugs_lock;          /* AttachedBugs::lock_: who holds it. */
bit loaded;              /* AttachedBugs::loaded_ */
bit hook_left;           /* AttachedBugs::hook_left_ */
bit reference;           /* AttachedBugs::reference_ holds one. */
byte postponed;          /* References that threads give back when they end. */
bit hook_bound;          /* module_state.g_channel_destroy_hook */
byte descriptor = NONE;  /* Socket::descriptor_ */
byte taken = NONE;       /* Socket::taken_number_ */

/* ==== what the host and the system keep ============================================= */

bit module_mapped;            /* The object is in memory. */
bit host_reference;           /* The host has not closed it. */
bit interfaces_known;         /* The application and the API command can be found. */
byte module_users;            /* Threads in the application or in a command. */
byte event_readers;           /* Event threads in callbacks; unbinding waits for them. */
byte events[KEYS];            /* Destroy events on their way, in no order. */
byte events_waiting;          /* All of them. */

bit session_known[CALLS];     /* It can be located. */
byte session_readers[CALLS];  /* Its read locks. */
byte bug_readers[CALLS];      /* The lock of its list of bugs: held by frames, */
bit bug_writer[CALLS];        /* and by whoever changes the list. */
byte bug_of[CONTEXTS];        /* NOBODY, or the call plus 1 that has the context's bug. */

byte calls_ended;
byte finished;                /* Threads that have ended. */

/* The descriptor numbers of the process. The lowest free one is given out first. */
mtype = { unused, our_socket, dead_socket, file_of_others };
#define NUMBERS 3
mtype number[NUMBERS] = unused;

inline take_number(kind, got) {
    d_step {
        if
        :: number[0] == unused -> number[0] = kind; got = 0
        :: number[0] != unused && number[1] == unused -> number[1] = kind; got = 1
        :: number[0] != unused && number[1] != unused && number[2] == unused ->
            number[2] = kind;
            got = 2
        :: else -> got = NONE
        fi
    }
}

/* ==== the module ==================================================================== */

/* Belongs to every step of the module's code, */
#define here assert(module_mapped)
/* and this one to every step that looks into a context. */
#define touch(c) assert(module_mapped); assert(context[c].not_freed)

#define take(mutex) mutex == NOBODY -> mutex = ME
#define give(mutex) assert(mutex == ME); mutex = NOBODY

/* code: quorvane_lib/reference_count.h ~Reference: drop_reference(); delete */
inline drop_reference(c) {
#ifdef WRONG_COUNT_IN_TWO_STEPS
    atomic { touch(c); left = context[c].references - 1 }
#endif
    d_step {
        touch(c);
#ifndef WRONG_COUNT_IN_TWO_STEPS
        left = context[c].references - 1;
#endif
        context[c].references = left;
        if
        :: left == 0 ->
            assert(context[c].lock == NOBODY);
            context[c].not_freed = 0;
            printf("%d: context %d is deleted\n", _pid, c)
        :: else
        fi;
        left = 0
    }
}

/* ---- registry ---------------------------------------------------------------------- */

/* Finds and erases an entry. The lock makes one step of it.
 * code: module/app_context.cpp remove_context: contexts.find; contexts.erase */
inline remove_context(k, c) {
    atomic { here; c = entry[k] }
    atomic {
        here;
        if
        :: c != NOBODY -> entry[k] = NOBODY; c--; printf("%d: context %d leaves the registry\n", _pid, c)
        :: else -> c = NONE
        fi
    }
}

/* code: module/app_context.cpp add_context: new (std::nothrow) AppContext; insert_or_assign */
inline add_context(k, c) {
    assert(contexts_made < CONTEXTS);
    c = contexts_made;
    contexts_made++;
    context[c].not_freed = 1;
    context[c].references = 1;
    context[c].key = NONE;
    context[c].session = NONE;
    entry[k] = c + 1;
    printf("%d: context %d is added under key %d\n", _pid, c, k)
}

/* ---- socket ------------------------------------------------------------------------ */

/* A descriptor that nobody changes is read and used in one step.
 * code: quorvane_lib/net_socket.cpp Socket::send: descriptor(); ::sendto */
inline send(sent) {
#if RELOADS > 0
    atomic { here; target = descriptor }
#endif
    atomic {
        here;
#if RELOADS == 0
        target = descriptor;
#endif
        if
        :: target == NONE -> sent = 0
        :: else ->
            assert(number[target] != file_of_others);
            sent = (number[target] == our_socket)
        fi;
        target = 0
    }
}

/* ---- attached bugs ------------------------------------------------------------------ */

/* What is left to do after the last bug has been counted down. */
#ifdef ASSUME_RETURN_BEFORE_UNMAPPING
#define here_still skip
#else
#define here_still here
#endif

/* Returning to the host: the last instructions of the module on this thread. */
inline leave() {
#if RELOADS > 0
    here_still
#else
    skip
#endif
}

/* code: module/attached_bugs.cpp AttachedBugs::remove: lock_; --count_ > 0; release_number;
 *       !loaded_ && !hook_left_; give_back_at_thread_end
 * code: quorvane_lib/net_socket.cpp Socket::release_number: ::close; taken_number_
 * code: module/object_reference.cpp ObjectReference::give_back_at_thread_end:
 *       handle_ == nullptr; pthread_setspecific; handle_ = nullptr */
inline count_bug_down() {
#if RELOADS > 0
    atomic { take(bugs_lock); here; attached_bugs-- }
    atomic {
        here_still;
        if
        :: attached_bugs == 0 && taken != NONE -> number[taken] = unused; taken = NONE
        :: else
        fi
    }
    atomic {
        here_still;
        if
#ifndef WRONG_OBJECT_STAYS_MAPPED
        :: attached_bugs == 0 && !loaded && !hook_left && reference ->
#else
        :: false ->
#endif
            reference = 0;
            postponed++
        :: else
        fi;
        give(bugs_lock)
    }
#else
    atomic { here; attached_bugs-- }
#endif
}

/* code: module/attached_bugs.cpp AttachedBugs::open_socket: lock_; socket_.open
 * code: quorvane_lib/net_socket.cpp Socket::open: descriptor() >= 0; ::socket;
 *       use_taken_number; descriptor_.store
 * code: quorvane_lib/net_socket.cpp Socket::use_taken_number: ::dup3; ::close; taken_number_ */
inline open_socket() {
    atomic { take(bugs_lock); here }
    if
    :: descriptor == NONE ->
        take_number(our_socket, target);
        if
        :: taken != NONE ->
            atomic { here; number[taken] = our_socket }
            atomic { here; number[target] = unused; target = taken; taken = NONE }
        :: else
        fi;
        atomic { here; descriptor = target; target = 0 }
    :: else
    fi;
    atomic { here; give(bugs_lock) }
}

/* code: module/attached_bugs.cpp AttachedBugs::close_socket: lock_; count_ == 0;
 *       socket_.close(); socket_.close_under_senders()
 * code: quorvane_lib/net_socket.cpp Socket::close: descriptor_.exchange(-1; ::close;
 *       release_number
 * code: quorvane_lib/net_socket.cpp Socket::close_under_senders: descriptor_.exchange(-1;
 *       ::shutdown; ::dup3; taken_number_ = closed */
inline close_socket() {
    atomic { take(bugs_lock); here; target = descriptor; descriptor = NONE }
    atomic {
        here;
        if
        :: target == NONE
#ifdef WRONG_NUMBER_GIVEN_BACK
        :: target != NONE -> number[target] = unused
#else
        :: target != NONE && attached_bugs == 0 -> number[target] = unused
        :: target != NONE && attached_bugs != 0 -> number[target] = dead_socket; taken = target
#endif
        fi;
        target = 0
    }
    atomic { here; give(bugs_lock) }
}

/* ---- media bug --------------------------------------------------------------------- */

/* code: module/mod_quorvane.cpp start_transfer: context.context_lock; merge_features;
 *       requested_features = context.features; media_start; return context.start_sent
 * code: module/mod_quorvane.cpp handle_init: start_transfer */
inline handle_init(c) {
    atomic { take(context[c].lock); touch(c); assert(!context[c].being_written) }
    send(ok);
    atomic {
        if  /* The network can refuse it, too. */
        :: true
        :: ok = 0
        fi;
        touch(c);
        context[c].start_sent = ok;
        context[c].start_left = ok;
        give(context[c].lock);
#ifdef WRONG_FAILED_START_IS_KEPT
        ok = 1
#endif
    }
}

/* code: module/mod_quorvane.cpp handle_frame: media_data
 * code: module/media_transfer.cpp MediaTransfer::media_data: context.legs[leg]; packet.send;
 *       bytes_sent += */
inline handle_frame(c) {
    atomic {
        touch(c);
        assert(!context[c].being_written);
        assert(context[c].start_left && !context[c].terminate_left);
        context[c].frames++
    }
    send(ok);
    atomic { touch(c); context[c].frames-- }
    leave()
}

/* code: module/mod_quorvane.cpp unregister: contexts_lock; remove_context */
inline unregister(c) {
#ifdef WRONG_LOCK_ORDER
    atomic { take(context[c].lock); touch(c) }
#endif
#ifdef WRONG_ERASE_WITHOUT_LOCK
    atomic { touch(c); id = context[c].key }
    remove_context(id, own);
#else
    atomic { take(registry_lock); touch(c); id = context[c].key }
    remove_context(id, own);
    atomic { give(registry_lock) }
#endif
#ifdef WRONG_LOCK_ORDER
    atomic { give(context[c].lock) }
#endif
    if
    :: own != NONE -> drop_reference(own)
    :: else
    fi
}

/* code: module/mod_quorvane.cpp media_handler: handle_close(session, detach(;
 *       module_state.bugs.remove
 * code: module/mod_quorvane.cpp detach: count_close; take_back_from_bug;
 *       module_state.bugs.add; ContextReference(&context)
 * code: module/mod_quorvane.cpp handle_close: media_terminate; report_transfer; unregister */
inline handle_close(c) {
    atomic {
        touch(c);
        context[c].closed_bugs++;
        if
        :: context[c].lent > 0 -> context[c].lent--
        :: else -> attached_bugs++; context[c].references++
        fi
    }
    send(ok);
    atomic {
        touch(c);
        assert(!context[c].terminate_left);
        context[c].terminate_left = 1;
        assert(context[c].frames == 0)
    }
    unregister(c);
    drop_reference(c);
    count_bug_down();
    leave()
}

/* ---- application ------------------------------------------------------------------- */

/* code: module/mod_quorvane.cpp claim_context: contexts_lock; contexts.find; create_context;
 *       created_time != 0; set_session_uuid; mark_configured; ContextReference(context) */
inline claim_context(s, k, c) {
    atomic {
        take(registry_lock);
        here;
        c = entry[k];
        if
        :: c == NOBODY -> add_context(k, c)
        :: c != NOBODY && context[c - 1].configured -> c = NONE
        :: else -> c--
        fi
    }
    atomic {
        if
        :: c != NONE ->
            touch(c);
            context[c].session = s;
#ifndef HOST_HAS_NO_TIMETABLE
            context[c].configured = 1;
#endif
#if !defined(WRONG_NO_APPLICATION_REFERENCE) && !defined(WRONG_REFERENCE_AFTER_UNLOCK)
            context[c].references++
#endif
        :: else
        fi;
        give(registry_lock)
    }
#ifdef WRONG_REFERENCE_AFTER_UNLOCK
    if
    :: c != NONE -> atomic { touch(c); context[c].references++ }
    :: else
    fi
#endif
}

/* code: module/mod_quorvane.cpp attach: module_state.bugs.add; lend_to_bug
 * code: module/mod_quorvane.cpp forget_refused_bug: closed_bugs() == closed;
 *       take_back_from_bug; module_state.bugs.remove
 * code: module/mod_quorvane.cpp attach_media_bug: closed_bugs(); attach(;
 *       switch_core_media_bug_add; forget_refused_bug */
inline attach_media_bug(s, c) {
    atomic {
        touch(c);
        closed = context[c].closed_bugs;
        attached_bugs++;
#ifndef WRONG_NO_BUG_REFERENCE
        context[c].references++;
#endif
        context[c].lent++
    }
    host_bug_add(s, c);
    if
    :: ok
    :: else ->
        atomic {
            touch(c);
            ok = (context[c].closed_bugs == closed && context[c].lent > 0);
            context[c].lent = context[c].lent - ok
        };
        if
        :: ok ->
            drop_reference(c);
#ifndef WRONG_REFUSED_BUG_STAYS_COUNTED
            count_bug_down()
#endif
        :: else
        fi
    fi
}

/* code: module/mod_quorvane.cpp start_application: claim_context; context->uuid; context->id;
 *       configure_context; attach_media_bug */
inline start_application(s) {
    claim_context(s, KEY(s), c);
    if
    :: c != NONE ->
        atomic {
            touch(c);
            assert(!context[c].being_written);
            context[c].being_written = 1;
            context[c].key = KEY(s)
        }
#ifndef WRONG_BUG_BEFORE_OPTIONS
        atomic { touch(c); context[c].being_written = 0 }
#endif
        if
        :: attach_media_bug(s, c)
        :: true  /* configure_context finds a media node that it cannot read. */
        fi;
#ifdef WRONG_BUG_BEFORE_OPTIONS
        atomic { touch(c); context[c].being_written = 0 }
#endif
#ifndef WRONG_NO_APPLICATION_REFERENCE
        drop_reference(c);
#endif
        leave()
    :: else
    fi
}

/* ---- API --------------------------------------------------------------------------- */

/* code: module/api_command.cpp FeatureApiCommandImpl::update: contexts_lock; find_context;
 *       create_context; context->context_lock; update(
 * code: module/api_command.cpp FeatureApiCommandImpl::create_context: note_other_name;
 *       add_context; set_session_uuid
 * code: module/api_command.cpp FeatureApiCommandImpl::execute: lock(); update(; unlock() */
inline run_api_command(s, k) {
    atomic {
        take(registry_lock);
        here;
        c = entry[k];
        if
        :: c == NOBODY ->
            add_context(k, c);
            context[c].session = s;
#if defined(ALLOW_SECOND_NAME) && !defined(WRONG_SECOND_NAME_IS_FORGOTTEN)
            other_name[KEY(s)] = other_name[KEY(s)] || k != KEY(s)
#endif
        :: else -> c--
        fi
    }
#ifdef WRONG_COMMAND_WITHOUT_REGISTRY_LOCK
    atomic { give(registry_lock) }
#endif
    atomic {
        take(context[c].lock);
        touch(c);
        sent = context[c].start_sent;
        assert(!(sent && context[c].being_written))
    }
    if
    :: sent -> send(sent)
    :: else
    fi;
    atomic { touch(c); give(context[c].lock); sent = 0 }
#ifndef WRONG_COMMAND_WITHOUT_REGISTRY_LOCK
    atomic { give(registry_lock) }
#endif
    leave()
}

/* ---- events ------------------------------------------------------------------------ */

/* code: module/leftover_contexts.cpp take_context: contexts_lock; remove_context
 * code: module/leftover_contexts.cpp remove_contexts_of_other_names: contexts_lock; find_context;
 *       created_time == 0; remove_context; other_names.erase
 * code: module/mod_quorvane.cpp channel_destroy_handler: take_context;
 *       remove_contexts_of_other_names; created_time != 0 */
inline channel_destroy_handler(k) {
    atomic { take(registry_lock); here }
    remove_context(k, c);
    atomic { give(registry_lock) }
#ifdef ALLOW_SECOND_NAME
    atomic {
        take(registry_lock);
        here;
        if
        :: other_name[k] && entry[KEYS - 1] != NOBODY ->
            other = entry[KEYS - 1] - 1;
            entry[KEYS - 1] = NOBODY
        :: else -> other = NONE
        fi;
        other_name[k] = 0
    }
    if
    :: other != NONE -> drop_reference(other)
    :: else
    fi;
    atomic { give(registry_lock); other = 0 }
#endif
    if
    :: c != NONE ->
#ifdef WRONG_DELETE_IN_DESTROY_HANDLER
        d_step { touch(c); context[c].not_freed = 0; printf("%d: context %d is deleted\n", _pid, c) }
#else
        drop_reference(c)
#endif
    :: else
    fi;
    leave()
}

/* ---- load and shutdown ------------------------------------------------------------- */

/* An object that stayed mapped has missed the end of calls.
 * code: module/leftover_contexts.cpp idle_contexts: contexts_lock; is_only_registered
 * code: module/leftover_contexts.cpp drop_contexts_of_ended_calls: idle_contexts(; is_alive;
 *       contexts_lock; remove_context */
inline drop_contexts_of_ended_calls() {
    for (k : 0 .. KEYS - 1) {
        atomic {
            take(registry_lock);
            here;
            c = entry[k];
            if
            :: c != NOBODY ->
                c--;
                touch(c);
                if
                :: context[c].references == 1 -> c = context[c].session
                :: else -> c = NONE
                fi
            :: else -> c = NONE
            fi;
            give(registry_lock)
        }
        atomic {
            here;
            if
            :: c != NONE && session_known[c] -> c = NONE
            :: else
            fi
        }
        if
        :: c != NONE ->
            atomic { take(registry_lock); here }
            remove_context(k, c);
            if
            :: c != NONE -> drop_reference(c)
            :: else
            fi;
            atomic { give(registry_lock) }
        :: else
        fi
    }
    c = 0;
    k = 0
}

/* code: module/mod_quorvane.cpp mod_quorvane_load: open_socket; register_application;
 *       bind_events; drop_contexts_of_ended_calls; module_state.bugs.loaded
 * code: module/mod_quorvane.cpp bind_events: bind(; bind(; module_state.bugs.load_left_a_hook
 * code: module/attached_bugs.cpp AttachedBugs::load_left_a_hook: lock_; hook_left_ = true;
 *       take_reference
 * code: module/attached_bugs.cpp AttachedBugs::loaded: lock_; loaded_ = true;
 *       hook_left_ = false
 * code: module/mod_quorvane.cpp bind: unbind(hook); switch_event_bind_removable */
inline load(success) {
    open_socket();
    atomic { !hook_bound || event_readers == 0 -> here; hook_bound = 0 }
    atomic { here; hook_bound = 1 }
    if
    :: success = 1;
#ifdef HOST_CALLS_DURING_LOAD
        interfaces_known = 1;
#endif
#ifndef WRONG_CONTEXTS_OF_ENDED_CALLS_STAY
        drop_contexts_of_ended_calls();
#endif
        atomic { bugs_lock == NOBODY -> here; loaded = 1; hook_left = 0 }
#ifdef ALLOW_FAILED_LOAD
    :: atomic {
            bugs_lock == NOBODY ->
            here;
            success = 0;
#ifndef WRONG_FAILED_LOAD_IS_UNMAPPED
            hook_left = 1;
            reference = 1
#endif
        }
#endif
    fi;
    leave()
}

/* code: module/mod_quorvane.cpp mod_quorvane_shutdown: close_socket;
 *       unbind(module_state.g_channel_destroy_hook); module_state.bugs.unloaded
 * code: module/attached_bugs.cpp AttachedBugs::unloaded: lock_; loaded_ = false;
 *       hook_left_ = false; count_ > 0; take_reference; lock_; give_back
 * code: module/object_reference.cpp ObjectReference::give_back: handle_ != nullptr; ::dlclose */
inline shutdown() {
    close_socket();
#ifdef HOST_UNBINDS_DURING_CALLBACK
    atomic { here; hook_bound = 0 }
#else
    atomic { event_readers == 0 -> here; hook_bound = 0 }
#endif
    atomic {
        bugs_lock == NOBODY ->
        here;
        loaded = 0;
        hook_left = 0;
        k = (attached_bugs > 0);
#ifndef WRONG_UNMAPPED_UNDER_BUGS
        reference = reference || k
#endif
    }
    if
    :: !k -> atomic { bugs_lock == NOBODY -> here; reference = 0 }
    :: else
    fi;
    k = 0;
    leave()
}

/* ==== the host ====================================================================== */

/* INIT comes before anybody else knows of the bug. A bug that refuses to start gets no
 * further event. */
inline host_bug_add(s, c) {
    ok = 0;
    if
    :: true  /* The host refuses the bug. */
    :: handle_init(c);
        if
        :: ok ->
            atomic {
                !bug_writer[s] && bug_readers[s] == 0 ->
                assert(bug_of[c] == NOBODY);
                bug_of[c] = s + 1
            }
        :: else ->
#ifdef HOST_CLOSES_REFUSED_BUG
            handle_close(c);
            ok = 0
#else
            skip
#endif
        fi
    fi
}

/* Delivers one frame to a bug of the session, if there is one. */
inline host_frame(s) {
    atomic {
        !bug_writer[s] ->
        bug_readers[s]++;
        c = 0;
        do
        :: c < CONTEXTS && bug_of[c] != s + 1 -> c++
        :: else -> break
        od
    }
    if
    :: c < CONTEXTS -> handle_frame(c)
    :: else
    fi;
    atomic { bug_readers[s]--; c = 0; ok = 0 }
}

/* Takes every bug off the session and closes it, holding the lock of the list. */
inline host_close_bugs(s) {
#ifdef HOST_CLOSES_DURING_FRAMES
    atomic { !bug_writer[s] -> bug_writer[s] = 1; c = 0 }
#else
    atomic { !bug_writer[s] && bug_readers[s] == 0 -> bug_writer[s] = 1; c = 0 }
#endif
    do
    :: atomic { c < CONTEXTS && bug_of[c] == s + 1 -> bug_of[c] = NOBODY }
        handle_close(c);
        d_step { c++; ok = 0; own = 0; id = 0 }
    :: atomic { c < CONTEXTS && bug_of[c] != s + 1 -> c++ }
    :: c == CONTEXTS -> break
    od;
    atomic { bug_writer[s] = 0; c = 0 }
}

/* The thread of a call: its dialplan, frames of one direction, hang-up. */
proctype call_thread(byte s) {
    byte c, own, id, left, target, runs, closed;
    bit ok;
    do
    :: atomic { runs < RUNS -> runs++ }
        if
        :: atomic { interfaces_known -> module_users++ }
            start_application(s);
            atomic { module_users--; c = 0; ok = 0; closed = 0 }
        :: true
        fi
    :: atomic { true -> runs = 0; break }
    od;
    if
    :: host_frame(s)
    :: true
    fi;
#ifdef HOST_FIRES_DESTROY_BEFORE_CLOSE
    atomic { events[KEY(s)]++; events_waiting++; calls_ended++ }
#endif
    host_close_bugs(s);
#ifdef HOST_ENDS_SESSION_UNDER_COMMAND
    atomic {
#else
    atomic {
        session_readers[s] == 0 ->
#endif
        session_known[s] = 0;
#ifndef HOST_FIRES_DESTROY_BEFORE_CLOSE
        events[KEY(s)]++;
        events_waiting++;
        calls_ended++;
#endif
        finished++
    }
}

/* The other party's thread, for frames of the other direction; or a command of the host
 * that takes all bugs off the session. Both hold the session's read lock. */
proctype other_thread(byte s) {
    byte c, own, id, left, target;
    bit ok;
    if
    :: atomic { session_known[s] -> session_readers[s]++ }
        if
        :: host_frame(s)
#ifdef ALLOW_REMOVAL_FROM_OUTSIDE
        :: host_close_bugs(s)
#endif
        fi;
        session_readers[s]--
    :: true
    fi;
    finished++
}

/* Somebody at the console or at the event socket. */
proctype api_thread() {
    byte c, target, s, k;
    bit sent;
    if
    :: atomic { interfaces_known -> module_users++; select(s : 0 .. CALLS - 1) }
        if
        :: atomic { session_known[s] -> session_readers[s]++; k = KEY(s) }
#ifdef ALLOW_SECOND_NAME
            if
            :: true
            :: k = KEYS - 1
            fi;
#endif
            run_api_command(s, k);
            atomic { session_readers[s]--; c = 0; k = 0 }
        :: !session_known[s]
        fi;
        atomic { module_users--; s = 0 }
    :: true
    fi;
    finished++
}

/* Delivers the destroy events of calls that have ended, after any time and in any order,
 * and those that somebody has made up. */
proctype event_thread() {
    byte c, left, k, other, strays;
    do
    :: atomic {
            events_waiting > 0 || strays < STRAYS ->
            select(k : 0 .. KEYS - 1);
            if
            :: events[k] > 0 -> events[k]--; events_waiting--
            :: strays < STRAYS -> strays++
            :: else -> k = NONE
            fi;
            event_readers++
        }
        if
        :: hook_bound && k != NONE -> channel_destroy_handler(k)
        :: else
#ifdef HOST_LOSES_DESTROY_EVENTS
        :: true
#endif
        fi;
        atomic { event_readers--; c = 0; k = 0 }
    :: atomic { calls_ended == CALLS && events_waiting == 0 -> break }
    od;
    finished++
}

/* Without a reference the object goes, and its static objects with it, also what is left in
 * the registry. A load makes them anew.
 * code: module/leftover_contexts.cpp free_left_contexts: contexts_lock; remove_context */
inline host_unmap() {
    if
    :: !host_reference && !reference && postponed == 0 ->
        module_mapped = 0;
        assert(!(attached_bugs > 0));
        for (k : 0 .. KEYS - 1) {
            if
            :: entry[k] != NOBODY ->
                c = entry[k] - 1;
                assert(context[c].not_freed);
                assert(context[c].references == 1);
                context[c].not_freed = 0;
                entry[k] = NOBODY
            :: else
            fi;
            other_name[k] = 0
        }
        if
        :: descriptor != NONE -> number[descriptor] = unused; descriptor = NONE
        :: else
        fi;
        if
        :: taken != NONE -> number[taken] = unused; taken = NONE
        :: else
        fi
    :: else
    fi;
    c = 0;
    k = 0
}

#define THREADS (2 * CALLS + COMMANDS + 1 + 2 * (RELOADS > 0) + FILES)

/* The ends of threads that give a reference back: the C library closes the object for them.
 * A closing thread may end at any time after it has counted the last bug down. The case that it
 * closes two last bugs counts as two threads.
 * code: module/object_reference.cpp close_function: dlclose */
proctype thread_ends() {
    byte k, c;
    do
    :: atomic { postponed > 0 -> postponed--; host_unmap() }
    :: atomic { finished == THREADS - 1 && postponed == 0 -> break }
    od;
    finished++
}

/* Unloads the module and loads it again. The host does not begin while a thread is in the
 * application or in a command. A load that fails is not shut down. At the end the module is
 * unloaded for good, or not. */
proctype loading_thread() {
    byte c, left, k, target, reloads;
    bit success = 1;
    do
#ifdef HOST_UNLOADS_WHILE_IN_USE
    :: atomic { reloads < RELOADS -> reloads++; interfaces_known = 0 }
#else
    :: atomic { reloads < RELOADS && module_users == 0 -> reloads++; interfaces_known = 0 }
#endif
        if
        :: success -> shutdown()
        :: else
        fi;
        atomic { host_reference = 0; host_unmap() }
        if
        :: atomic { host_reference = 1; module_mapped = 1 }
            load(success);
            if
            :: success -> interfaces_known = 1
            :: else -> atomic { host_reference = 0; host_unmap() }
            fi
        :: break
        fi
    :: break
    od;
    atomic { success = 0; reloads = 0; finished++ }
}

/* Other code of the process: opens a file when it likes. */
proctype file_thread() {
    byte got;
    take_number(file_of_others, got);
    atomic { got = 0; finished++ }
}

init {
    byte i;
    atomic {
        module_mapped = 1;
        host_reference = 1;
        loaded = 1;
        interfaces_known = 1;
        hook_bound = 1;
        number[0] = our_socket;
        descriptor = 0;
        for (i : 0 .. CALLS - 1) {
            session_known[i] = 1;
            run call_thread(i);
            run other_thread(i)
        }
#if COMMANDS > 0
        for (i : 1 .. COMMANDS) {
            run api_thread()
        }
#endif
        run event_thread();
#if RELOADS > 0
        run loading_thread();
        run thread_ends();
#endif
#if FILES > 0
        for (i : 1 .. FILES) {
            run file_thread()
        }
#endif
        i = 0
    }
    /* Nothing stays behind. */
    atomic {
        finished == THREADS ->
        assert(attached_bugs == 0);
        /* An object that the host has closed is gone: another can take its place. */
        assert(module_mapped == (host_reference || hook_left));
        do
        :: i < contexts_made ->
            assert(!context[i].not_freed);
            assert(!context[i].start_left || context[i].terminate_left);
            i++
        :: else -> break
        od
    }
}
