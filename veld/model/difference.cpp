#include "veld/model/difference.h"

namespace veld
{

namespace
{

class comparison
{
public:
    explicit comparison(tree *of) : tree_(of) {}

    void objects(const node *before, node *now)
    {
        if (now->what->from == source::live && now->table) {
            // Nobody has looked at it: nobody knows what was there.
            if (before->table->epoch == 0)
                return;
            tree_->refresh(now);
        }
        if (now->table)
            instances(before, now);
        for (size_t i = 0; i < now->children.size(); ++i) {
            if (now->children[i]->what->is_object())
                objects(before->children[i].get(), now->children[i].get());
        }
    }

    std::vector<instance_change> found;

private:
    void instances(const node *before, node *now)
    {
        // Both ascend by number.
        const auto &old = before->table->instances;
        const auto &fresh = now->table->instances;
        size_t i = 0;
        size_t k = 0;
        while (i < old.size() || k < fresh.size()) {
            if (k == fresh.size() || (i < old.size() && old[i]->number < fresh[k]->number)) {
                add(now, old[i++]->number, false);
            } else if (i == old.size() || fresh[k]->number < old[i]->number) {
                add(now, fresh[k++]->number, true);
            } else {
                if (fresh[k]->what->is_object())
                    objects(old[i].get(), fresh[k].get());
                ++i;
                ++k;
            }
        }
    }

    void add(const node *table, uint32_t number, bool added)
    {
        found.push_back({tree::name(table), number, added, table->what->reach});
    }

    tree *tree_;
};

} // namespace

std::vector<instance_change> instance_changes(tree *of, const node *before)
{
    of->begin_request();
    comparison work(of);
    work.objects(before, of->root());
    return std::move(work.found);
}

} // namespace veld
