// What Ctrl-C jumps over. SIGINT is delivered only at wait points (ve_wait.h), where its handler may leave with
// siglongjmp; the destructors of the frames in between do not run. A local that owns something and lives across a wait
// point is therefore wrapped into jump_safe, which the handler releases before it jumps: after the jump the landing's
// own calls would overwrite the frames that hold those locals. Main thread only.
#pragma once

#include <utility>

/// One registered local: an element of the list that the landing walks, newest first.
class ve_landing_node
{
public:
    ve_landing_node(const ve_landing_node &) = delete;
    ve_landing_node &operator=(const ve_landing_node &) = delete;

protected:
    using destroy_fn = void (*)(ve_landing_node *);
    explicit ve_landing_node(destroy_fn destroy) : older_(newest_), destroy_(destroy)
    {
        if (older_ != nullptr)
            older_->newer_ = this;
        newest_ = this;
    }
    ~ve_landing_node()
    {
        (newer_ != nullptr ? newer_->older_ : newest_) = older_;
        if (older_ != nullptr)
            older_->newer_ = newer_;
    }

private:
    friend ve_landing_node *ve_landing_mark();
    friend void ve_landing_release(ve_landing_node *mark);
    friend void ve_landing_release_to_mark();

    static inline ve_landing_node *newest_ = nullptr;
    static inline ve_landing_node *mark_ = nullptr;
    ve_landing_node *older_;
    ve_landing_node *newer_ = nullptr;
    destroy_fn destroy_;
};

/// A local `T` that is destroyed when its scope ends, or by the landing when Ctrl-C jumps out of its scope. It is a `T`
/// in every other respect; assign to it to change what it holds. Never a member, a global or on the heap.
template <class T> class jump_safe final : public T, private ve_landing_node
{
public:
    template <class... Args>
    explicit jump_safe(Args &&...args) : T(std::forward<Args>(args)...), ve_landing_node(&jump_safe::destroy)
    {
    }
    using T::operator=;

    static void *operator new(size_t) = delete;
    static void *operator new[](size_t) = delete;

private:
    static void destroy(ve_landing_node *node) { static_cast<jump_safe *>(node)->~jump_safe(); }
};

/// The newest local registered so far (null for none). Taken before a jump is armed, it is where the release stops.
inline ve_landing_node *ve_landing_mark()
{
    return ve_landing_node::mark_ = ve_landing_node::newest_;
}

/// Destroys, newest first, every local registered since `mark` was taken.
inline void ve_landing_release(ve_landing_node *mark)
{
    while (ve_landing_node::newest_ != mark)
        ve_landing_node::newest_->destroy_(ve_landing_node::newest_);
}

/// The same down to the mark that was taken last: for the handler, right before it jumps.
inline void ve_landing_release_to_mark()
{
    ve_landing_release(ve_landing_node::mark_);
}
