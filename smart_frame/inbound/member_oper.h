/*
 * What the group and the scene commands share: reading the command's keys,
 * the bound on the listed sub-devices, and printing the answer texts.
 *
 * Both commands list sub-device ids under "cids" and are answered with one
 * text that carries a result per listed id, "rets":[r0,r1,...]. Answer
 * texts are sized from what is really printed (two passes over the same
 * composition: measure, then write), so long ids and multi-digit negative
 * codes never overflow them.
 */
#ifndef SF_INBOUND_MEMBER_OPER_H
#define SF_INBOUND_MEMBER_OPER_H

#include <cjson/cJSON.h>

#include <cstddef>

#include "../../cloud_defs/kelo_cloud_types.h"
#include "../../services/uni_memory.h"
#include "../../services/uni_msg_queue.h"
#include "../sf_raii.h"
#include "../sf_tunables.h"

namespace sf {

/* Most sub-devices one group or scene command may list (see sf_tunables.h for why longer lists are refused). */
constexpr int MEMBER_OPER_MAX_IDS = SF_MEMBER_OPER_MAX_IDS;

/* The keys of one group or scene command; the texts point into its tree. */
struct MemberOperCmd {
    bool remove = false;          /* "action" non-zero */
    const cJSON *cids = nullptr;  /* the array of ids */
    int dev_num = 0;              /* elements of "cids" */
    const CHAR_T *gid = nullptr;
    const CHAR_T *sid = nullptr;  /* scene commands only */
};

/*
 * Read "action", "cids", "gid" and, with want_sid, "sid" of cmd (which may
 * be NULL). false when the command is malformed: a key missing, "action"
 * not a number, "cids" not an array, empty or longer than
 * MEMBER_OPER_MAX_IDS (that count is logged at detail level), an id, "gid"
 * or "sid" not a string (an id that is not a text could neither be handed
 * to the application nor printed in the answer). The caller logs the verdict.
 */
bool read_member_oper_cmd(const cJSON *cmd, bool want_sid, MemberOperCmd *out);

/*
 * Owner of a group or scene message handed to a handler: the copied
 * envelope (Envelope: tp and cmd_js) and its command tree, released
 * together when the handler returns, the tree first.
 */
template <typename Envelope>
class MemberOperMsg {
public:
    explicit MemberOperMsg(MESSAGE *msg)
        : envelope_(msg != nullptr ? static_cast<Envelope *>(msg->pMsgData) : nullptr),
          tree_(envelope_ ? envelope_->cmd_js : nullptr)
    {
    }

    /* false for a missing message or envelope: nothing to handle or release */
    explicit operator bool() const { return static_cast<bool>(envelope_); }
    DP_CMD_TYPE_E tp() const { return envelope_->tp; }
    const cJSON *tree() const { return tree_.get(); }

private:
    MallocPtr<Envelope> envelope_; /* declared first: released last */
    JsonPtr tree_;
};

/*
 * Appends printf-style text to a buffer without ever writing past it, and
 * counts what it would have written: with no buffer it only measures.
 */
class TextOut {
public:
    TextOut() = default;
    TextOut(CHAR_T *buf, size_t size) : buf_(buf), size_(size) {}

    void add(const CHAR_T *fmt, ...) __attribute__((format(printf, 2, 3)));

    /* characters printed (or, measuring, needed), without the terminator */
    size_t length() const { return len_; }

private:
    CHAR_T *buf_ = nullptr;
    size_t size_ = 0;
    size_t len_ = 0;
};

/*
 * Run compose once to measure and once to print into a block of exactly
 * the needed size from Malloc. NULL when Malloc fails; *size always gets
 * the number of bytes asked for, terminator included (for the caller's log).
 */
template <typename Compose>
TextPtr print_text(Compose compose, size_t *size)
{
    TextOut measure;
    compose(measure);
    *size = measure.length() + 1;
    TextPtr text(static_cast<CHAR_T *>(Malloc(*size)));
    if (text) {
        text.get()[0] = '\0';
        TextOut out(text.get(), *size);
        compose(out);
    }
    return text;
}

/* "rets":[r0,...,rn-1], with its trailing comma; n is at least 1. */
void add_rets(TextOut &out, const OPERATE_RET *rets, int n);

/*
 * The answer of a group or scene command: the "rets" list of the n results
 * is printed first, then compose(out, rets_text) writes the whole answer
 * around it. NULL when either text cannot be allocated; *size then holds
 * the size of the failed request.
 */
template <typename Compose>
TextPtr print_answer(const OPERATE_RET *rets, int n, Compose compose, size_t *size)
{
    const TextPtr rets_text = print_text([&](TextOut &out) { add_rets(out, rets, n); }, size);
    if (!rets_text) {
        return nullptr;
    }
    return print_text([&](TextOut &out) { compose(out, rets_text.get()); }, size);
}

} // namespace sf

#endif /* SF_INBOUND_MEMBER_OPER_H */
