#include "state/interrupt.h"

#include <csignal>

#include "platform/ve_colors.h"
#include "platform/ve_out.h"
#include "platform/ve_rl.h"
#include "platform/ve_wait.h"

namespace
{

volatile sig_atomic_t armed = 0;

void sigint_handler(int)
{
    if (armed != 0)
        ve_wait_note_interrupt();
}

} // namespace

bool interrupt_arm()
{
    if (armed != 0 || signal(SIGINT, sigint_handler) != SIG_DFL)
        return false;
    armed = 1;
    ve_wait_checkpoint(); // a key that came since the line was read ends what it starts before it has begun
    return true;
}

bool interrupt_is_armed()
{
    return armed != 0;
}

bool interrupt_land()
{
    if (!ve_wait_interrupted())
        return false;
    ve_out_land();
    ve_rl_drop_ahead();
    ve_wait_clear_interrupt();
    ve_colors_reset();
    if (ve_out_is_terminal() && ve_out_mid_line())
        ve_puts(""); // what stands there, a spinner perhaps, is not the next prompt's
    return true;
}

void interrupt_disarm()
{
    interrupt_land();
    armed = 0;
    ve_wait_discard_sigint();
    signal(SIGINT, SIG_DFL);
}

interrupt_suspension::interrupt_suspension() : disposition_(signal(SIGINT, SIG_DFL))
{
    armed = 0;
}

interrupt_suspension::~interrupt_suspension()
{
    armed = 0;
    ve_wait_discard_sigint();
    signal(SIGINT, disposition_);
}
