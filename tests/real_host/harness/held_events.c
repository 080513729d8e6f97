/* A module that holds up the delivery of the host's events, so that a scenario can act before an
 * event arrives. The host delivers events on one thread, one after the other. Its subscriber
 * below keeps that thread waiting from "held_events hold" to "held_events release". */
#include <switch.h>

SWITCH_MODULE_LOAD_FUNCTION(held_events_load);
SWITCH_MODULE_SHUTDOWN_FUNCTION(held_events_shutdown);
SWITCH_MODULE_DEFINITION(held_events, held_events_load, held_events_shutdown, NULL);

#define SUBCLASS "suite::hold"
/* A scenario that fails does not release the events. The host's end waits for them, too. */
#define LONGEST_HOLD_MS 20000

static volatile int wanted = 0;
static volatile int holding = 0;
static switch_event_node_t* hook = NULL;

static void wait_for_release(switch_event_t* event) {
    int waited_ms = 0;
    (void)event;
    holding = 1;
    for (; wanted && waited_ms < LONGEST_HOLD_MS; ++waited_ms) {
        switch_yield(1000);
    }
    holding = 0;
}

/* Returns once all events fired before it are delivered, and later ones wait. */
SWITCH_STANDARD_API(held_events) {
    int done = 0;
    (void)session;
    if (!strcmp(cmd, "hold")) {
        switch_event_t* event = NULL;
        int waited_ms = 0;
        wanted = 1;
        if (switch_event_create_subclass(&event, SWITCH_EVENT_CUSTOM, SUBCLASS) ==
            SWITCH_STATUS_SUCCESS) {
            switch_event_fire(&event);
            for (; !holding && waited_ms < LONGEST_HOLD_MS; ++waited_ms) {
                switch_yield(1000);
            }
        }
        done = holding;
    } else {
        /* Not if the events went on by themselves, after the longest time. */
        done = holding;
        wanted = 0;
    }
    stream->write_function(stream, done ? "+OK\n" : "-ERR no events are held up\n");
    return SWITCH_STATUS_SUCCESS;
}

SWITCH_MODULE_LOAD_FUNCTION(held_events_load) {
    switch_api_interface_t* api = NULL;
    *module_interface = switch_loadable_module_create_module_interface(pool, modname);
    SWITCH_ADD_API(api, "held_events", "Holds up the delivery of events", held_events,
                   "hold|release");
    return switch_event_bind_removable(modname, SWITCH_EVENT_CUSTOM, SUBCLASS, wait_for_release,
                                       NULL, &hook);
}

SWITCH_MODULE_SHUTDOWN_FUNCTION(held_events_shutdown) {
    wanted = 0;
    switch_event_unbind(&hook);
    return SWITCH_STATUS_SUCCESS;
}
