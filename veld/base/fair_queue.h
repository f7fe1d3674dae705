// What several askers have given, who take turns.
#pragma once

#include <deque>
#include <string>
#include <unordered_map>
#include <utility>

namespace veld
{

/// Gives back what one asker has pushed in that order, and one thing of each in turn.
template <typename Thing> class fair_queue
{
public:
    bool empty() const { return turns_.empty(); }
    void push(const std::string &asker, Thing thing)
    {
        std::deque<Thing> &own = of_[asker];
        if (own.empty())
            turns_.push_back(asker);
        own.push_back(std::move(thing));
    }
    /// The first thing of whoever is next; there is one.
    Thing take()
    {
        std::string asker = std::move(turns_.front());
        turns_.pop_front();
        const auto own = of_.find(asker);
        Thing next = std::move(own->second.front());
        own->second.pop_front();
        if (own->second.empty())
            of_.erase(own);
        else
            turns_.push_back(std::move(asker));
        return next;
    }
    void clear()
    {
        of_.clear();
        turns_.clear();
    }

private:
    std::unordered_map<std::string, std::deque<Thing>> of_; // by asker; of those who have something here
    std::deque<std::string> turns_;                         // these askers: who is next
};

} // namespace veld
