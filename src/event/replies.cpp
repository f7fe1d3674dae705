#include "event/replies.h"

#include <mutex>

#include "platform/ve_log.h"

namespace
{

struct reply_node {
    ve_jrpcmsg *message;
    reply_node *next;
};

/// What came for the one who waits. Written by both threads.
struct reply_queue {
    std::mutex lock; ///< guards what follows; never held across a wait
    reply_node *head = nullptr;
    reply_node **tail = &head;
    const json_t *wanted = nullptr; ///< id of the answers that are kept, borrowed; null for none

    ve_jrpcmsg *take()
    {
        reply_node *const node = head;
        if (node == nullptr)
            return nullptr;
        head = node->next;
        if (head == nullptr)
            tail = &head;
        ve_jrpcmsg *const message = node->message;
        free(node);
        return message;
    }
    /// Starts anew, for answers with that id.
    void want(const json_t *id)
    {
        const std::scoped_lock held(lock);
        while (ve_jrpcmsg *const message = take())
            ve_jrpcmsg_free(message);
        wanted = id;
    }
} queue;

} // namespace

replies_wanted::replies_wanted(const json_t *id)
{
    queue.want(id);
}

replies_wanted::~replies_wanted()
{
    queue.want(nullptr);
}

ve_jrpcmsg *replies_wanted::take()
{
    const std::scoped_lock lock(queue.lock);
    return queue.take();
}

void replies_put(ve_jrpcmsg *answer)
{
    const std::scoped_lock lock(queue.lock);
    if (queue.wanted == nullptr || json_equal(queue.wanted, ve_jrpcmsg_id(answer)) == 0) {
        ve_jrpcmsg_free(answer);
        return;
    }
    auto *const node = static_cast<reply_node *>(ve_xmalloc(sizeof(reply_node), "group_msg_enc", __LINE__, "listener"));
    *node = {.message = answer, .next = nullptr};
    *queue.tail = node;
    queue.tail = &node->next;
}
