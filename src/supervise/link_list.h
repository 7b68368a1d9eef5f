#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

// A named relation (parent, child or member). It never points at the conn:
// names are resolved on every use, so a reload can replace records freely.
struct tovrin_link {
    std::string name;
};

// Links in the order they were first added, without duplicates. Short lists
// are searched in place; long ones (a parent with thousands of children)
// keep a set of names so adding stays constant time.
class tovrin_link_list {
  public:
    using const_iterator = std::vector<tovrin_link>::const_iterator;

    bool contains(const std::string &name) const;
    // Appends name unless it is already listed; false when it was.
    bool add(const std::string &name);
    // Gives back the room kept for links still to come, for a list that is
    // complete; one that cannot be given back is kept.
    void shrink() { links_.shrink_to_fit(); }

    const_iterator begin() const { return links_.begin(); }
    const_iterator end() const { return links_.end(); }
    bool empty() const { return links_.empty(); }
    size_t size() const { return links_.size(); }
    size_t capacity() const { return links_.capacity(); }
    const tovrin_link &front() const { return links_.front(); }

  private:
    static constexpr size_t index_threshold = 16;

    std::vector<tovrin_link> links_;
    // Made once links_ outgrows the threshold; most lists never need one.
    std::unique_ptr<std::unordered_set<std::string>> index_;
};
