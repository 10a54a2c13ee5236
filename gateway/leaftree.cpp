#include "gateway/leaftree.h"

namespace Gateway
{

LeafTree leafTreeOf(const Vorbel::Meanings &meanings)
{
    LeafTree root;
    for (const auto &leaf : meanings.leaves()) {
        LeafTree *node = &root;
        for (const QString &name : leaf->names) {
            node = &node->members[name];
        }
        node->leaf = leaf;
    }
    return root;
}

} // namespace Gateway
