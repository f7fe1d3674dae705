#include "event/replies.h"

#include <mutex>

#include "platform/ve_log.h"

namespace
{

struct reply_node {
    ve_jrpcmsg *message;
    reply_node *next;
};

std::mutex queue_lock; // guards what follows; never held across a wait
reply_node *queue_head = nullptr;
reply_node **queue_tail = &queue_head;
const json_t *wanted_id = nullptr;

void clear_queue()
{
    while (queue_head != nullptr) {
        reply_node *const node = queue_head;
        queue_head = node->next;
        ve_jrpcmsg_free(node->message);
        free(node);
    }
    queue_tail = &queue_head;
}

} // namespace

replies_wanted::replies_wanted(const json_t *id)
{
    const std::scoped_lock lock(queue_lock);
    clear_queue();
    wanted_id = id;
}

replies_wanted::~replies_wanted()
{
    const std::scoped_lock lock(queue_lock);
    clear_queue();
    wanted_id = nullptr;
}

ve_jrpcmsg *replies_wanted::take()
{
    const std::scoped_lock lock(queue_lock);
    reply_node *const node = queue_head;
    if (node == nullptr)
        return nullptr;
    queue_head = node->next;
    if (queue_head == nullptr)
        queue_tail = &queue_head;
    ve_jrpcmsg *const message = node->message;
    free(node);
    return message;
}

void replies_put(ve_jrpcmsg *answer)
{
    const std::scoped_lock lock(queue_lock);
    if (wanted_id == nullptr || json_equal(wanted_id, ve_jrpcmsg_id(answer)) == 0) {
        ve_jrpcmsg_free(answer);
        return;
    }
    auto *const node = static_cast<reply_node *>(ve_xmalloc(sizeof(reply_node), "group_msg_enc", __LINE__, "listener"));
    *node = {.message = answer, .next = nullptr};
    *queue_tail = node;
    queue_tail = &node->next;
}
