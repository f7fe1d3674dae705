#include "state/interrupt.h"

#include <atomic>

#include "event/request.h"
#include "platform/ve_colors.h"
#include "platform/ve_landing.h"
#include "platform/ve_out.h"

sigjmp_buf sigint_buf;
volatile sig_atomic_t sigint_buf_setted = 0;

namespace
{

std::atomic<void (*)()> soft_note{nullptr};

} // namespace

void sigint_handler(int)
{
    if (sigint_buf_setted == 0)
        return;
    if (auto *note = soft_note.load(std::memory_order_relaxed); note != nullptr) {
        note();
        return;
    }
    server_reconnect_abort();
    sigint_buf_setted = 0;
    ve_landing_release_to_mark(); // while the frames that hold the locals still stand
    siglongjmp(sigint_buf, 1);
}

void interrupt_set_soft(void (*note)())
{
    soft_note.store(note, std::memory_order_relaxed);
}

void interrupt_land(ve_landing_node *mark)
{
    ve_landing_release(mark);
    ve_out_land();
    ve_colors_reset();
    if (ve_out_is_terminal() && ve_out_mid_line())
        ve_puts(""); // what stands there, a spinner perhaps, is not the next prompt's
}
