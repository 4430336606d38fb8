/* Device message-bus library: modules exchange datagrams addressed by module number. */
#ifndef ORVD_PLATFORM_MSGBUS_H
#define ORVD_PLATFORM_MSGBUS_H

#include "cfg_tree.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Module numbers known on the device bus. */
enum {
    MSGBUS_MODULE_CONFIGD = 1,
    MSGBUS_MODULE_WIDS_BRIDGE = 2,
    MSGBUS_MODULE_WIDSD = 3,
    MSGBUS_MODULE_NETWORKD = 6,
    MSGBUS_MODULE_RRM = 28,
};

/* A received message, handed out as one heap block that the receiver frees with free().
 * The payload length is at byte 4 and the payload starts at byte 17; one zero byte follows
 * the payload. */
#pragma pack(push, 1)
typedef struct message_s {
    unsigned short source;      /* bytes 0-1: sending module */
    unsigned short destination; /* bytes 2-3: receiving module */
    unsigned int length;        /* bytes 4-7: payload length */
    unsigned int sequence;      /* bytes 8-11: sender's message number */
    unsigned int sender_pid;    /* bytes 12-15: sending process */
    unsigned char flags;        /* byte 16: reserved, 0 */
    char payload[1];            /* bytes 17-: payload and a terminating zero byte */
} message_s;
#pragma pack(pop)

/* Library trace: its name and options. */
void InitTrace(const char* name);
void SetTraceOpt(int option, int level, int flags);

/* Registers this process on the bus as `module`. Returns 0, or -1 when the module is taken
 * by a live process or the bus directory cannot be used. */
int InitLibParams(int module, const signed char* params, int params_length);

/* Leaves the bus: releases what InitLibParams set up. */
void FreeLibParams(void);

/* The loop flag: non-zero while the module's peer (its receiving side) runs. */
void SetModuleLoop(int value);
int GetModuleLoop(void);

/* Starts and stops the peer that receives this module's messages into its queue. */
int ModulePeerStart(void);
void ModulePeerStop(void);

/* Sends `length` payload bytes to `module`. Returns 0, or -1 at once when the module is not
 * on the bus or the message cannot be delivered. */
int MsgSend(const void* payload, int module, unsigned int length);

/* The next received message, or null without waiting. */
message_s* GetMsgFromQueueNoWait(void);

/* Waits for a reply whose configuration-tree text has "command" equal to `command`; other
 * messages received meanwhile are dropped. `timeout` counts units of MSGBUS_WAIT_UNIT_MS.
 * Returns the parsed reply (release with cfg_release), or null after writing `error_text`
 * to the log at error level when the time runs out.
 * When this thread's last MsgSend found its module not on the bus, no reply can come: the
 * wait takes only a matching reply already queued and otherwise ends at once.
 * The unit is sized for the driver's longest burst of exchanges: the snapshot of a full
 * access point reads about 60 values from configd at 20 units each, and against a configd
 * that never answers that burst must end well inside a worker's 10-second clock guard
 * (60 x 100 ms = 6 s). A peer that answers does so in milliseconds. */
#define MSGBUS_WAIT_UNIT_MS 5
cfg_t* wait_answer(const char* command, const char* error_text, int timeout);

#ifdef __cplusplus
}
#endif

#endif
