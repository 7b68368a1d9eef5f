#include "supervise/link_list.h"

bool tovrin_link_list::contains(const std::string &name) const {
    if (index_ != nullptr)
        return index_->count(name) != 0;
    for (const tovrin_link &link : links_) {
        if (link.name == name)
            return true;
    }
    return false;
}

bool tovrin_link_list::add(const std::string &name) {
    if (contains(name))
        return false;
    links_.push_back(tovrin_link{name});
    try {
        if (links_.size() == index_threshold) {
            auto index = std::make_unique<std::unordered_set<std::string>>();
            for (const tovrin_link &link : links_)
                index->insert(link.name);
            index_ = std::move(index);
        } else if (index_ != nullptr) {
            index_->insert(name);
        }
    } catch (...) {
        // A link that cannot be indexed is not added at all.
        links_.pop_back();
        throw;
    }
    return true;
}
