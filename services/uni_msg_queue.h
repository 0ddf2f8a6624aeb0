/*
 * Message module: queued messages and timed messages, all handled on one
 * dispatch thread, one at a time, in posting (or firing) order.
 *
 * Every result list below is complete: a backend MUST return no other code.
 * (The fakes of tests/fakes also return any code a test injects, to prove
 * that the module passes it on.)
 */
#ifndef UNI_MSG_QUEUE_H
#define UNI_MSG_QUEUE_H

#include "../cloud_defs/kelo_cloud_types.h"
#include "uni_time_queue.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef void    *P_MSG_DATA;
typedef UINT_T   MSG_DATA_LEN;
typedef void    *MSG_QUE_HANDLE;

#define NO_MSG_ID ((MSG_ID)0xFFFF) /* no message id allocated */

typedef struct {
    MSG_ID       msgID;
    P_MSG_DATA   pMsgData;   /* the module's copy of the posted data, from Malloc */
    MSG_DATA_LEN msgDataLen;
} MESSAGE;

typedef void (*MSG_CALLBACK)(MESSAGE *msg);

typedef struct tm_msg_s TM_MSG_S;
typedef void (*TM_MSG_CB)(TM_MSG_S *tm_msg);

/* A timed message; created, owned and destroyed by the message module. */
struct tm_msg_s {
    TIMER_ID       timer;
    MSG_QUE_HANDLE msgQueHandle;
    TM_MSG_CB      cb;
    MSG_ID         msgID;
    void          *data; /* given at creation */
};

/* Binding tables of a user of the module: which id or timed message goes to which handler. */
typedef struct {
    MSG_ID      *mid;
    MSG_CALLBACK msg_cb;
} MSG_ENTRY_S;

typedef struct {
    TM_MSG_S **tm_msg;
    TM_MSG_CB  tmm_msg_cb;
} TM_MSG_ENTRY_S;

/*
 * Start the module and its dispatch thread. Start-up thread.
 *   RC_OK    running (also when it already was)
 *   RC_FAIL  it cannot start (POSIX: a stop is under way on another thread)
 */
OPERATE_RET cmmod_init(void);

/*
 * Store a free message id in *mid. Any thread.
 *   RC_OK         *mid is the id
 *   RC_BAD_PARAM  mid is NULL
 *   RC_FAIL       every id is in use
 */
OPERATE_RET cmmod_get_free_msgid(MSG_ID *mid);

/*
 * Bind cb to mid (binding again replaces). cb MUST then be called on the
 * dispatch thread for every message posted to mid, one at a time, in
 * posting order. Any thread.
 *   RC_OK         bound
 *   RC_BAD_PARAM  cb is NULL, or mid was not handed out by cmmod_get_free_msgid
 */
OPERATE_RET cmmod_reg_msgcb(MSG_ID mid, MSG_CALLBACK cb);

/* Undo cmmod_reg_msgcb and free the id; messages still queued for it are dropped
 * and their copies released. Accepts an id that was never registered. Any thread. */
void cmmod_unreg_msgcb(MSG_ID mid);

/*
 * Copy len bytes of data into a block from Malloc and queue a MESSAGE whose
 * pMsgData is that copy. The handler owns the copy and releases it with Free.
 * On failure nothing is queued and data stays the caller's. Any thread.
 *   RC_OK         queued
 *   RC_BAD_PARAM  data is NULL with a non-zero len, or no handler is bound to mid
 *   RC_NO_MEMORY  the copy could not be allocated
 *   RC_FAIL       the dispatch thread is not running, or stopped (or the
 *                 poster was told to give up) while the poster waited for room
 *
 * A backend may bound its queue and hold a poster while the queue is full,
 * until the dispatch thread has taken a message (the POSIX backend holds at
 * SF_DISPATCH_QUEUE_LIMIT messages and answers RC_FAIL if the dispatch stops
 * meanwhile). That is backpressure, not loss: a network thread held here
 * stops reading, and its peer holds what it has not sent. It must never hold
 * the dispatch thread itself, which would wait for itself; callers must
 * therefore not hold a lock the dispatch thread needs while posting.
 */
OPERATE_RET cmmod_post_msg_malloc(MSG_ID mid, void *data, MSG_DATA_LEN len);

/*
 * Create a timed message (not started) calling cb; store it in *tm_msg. Any thread.
 *   RC_OK         created
 *   RC_BAD_PARAM  cb or tm_msg is NULL
 *   RC_NO_MEMORY  no memory for it
 */
OPERATE_RET cmmod_cr_tm_msg_hand(TM_MSG_CB cb, void *data, TM_MSG_S **tm_msg);

/*
 * (Re)arm tm_msg: after period_ms its callback runs on the dispatch thread,
 * once (TIMER_ONCE) or every period (TIMER_CYCLE). Starting an armed timed
 * message re-arms it from now. Any thread, its own callback included.
 *   RC_OK         armed
 *   RC_BAD_PARAM  tm_msg is NULL, unknown or released; timer_type is neither
 *                 TIMER_ONCE nor TIMER_CYCLE; or a TIMER_CYCLE period is 0
 */
OPERATE_RET cmmod_start_tm_msg(TM_MSG_S *tm_msg, TIME_MS period_ms, TIMER_TYPE timer_type);

/*
 * Stop and destroy tm_msg. MUST accept NULL. Once it returns, the callback
 * is not running and never runs again (a call from another thread waits for
 * a callback in progress); it may be called from the timed message's own
 * callback.
 */
void cmmod_release_tm_msg(TM_MSG_S *tm_msg);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* UNI_MSG_QUEUE_H */
