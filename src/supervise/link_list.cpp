#include "supervise/link_list.h"

bool tovrin_link_list::contains(const std::string &name) const {
    if (!index_.empty())
        return index_.count(name) != 0;
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
            for (const tovrin_link &link : links_)
                index_.insert(link.name);
        } else if (links_.size() > index_threshold) {
            index_.insert(name);
        }
    } catch (...) {
        // A link that cannot be indexed is not added at all.
        links_.pop_back();
        if (links_.size() < index_threshold)
            index_.clear();
        throw;
    }
    return true;
}
