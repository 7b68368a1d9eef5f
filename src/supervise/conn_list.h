#pragma once

#include <cstddef>
#include <list>
#include <memory>
#include <string_view>
#include <unordered_map>

struct tovrin_conn;

// An ordered list that owns its conns (`conns` and `new_conns` of the
// instance). Lookups by name go through an index and return what a walk from
// the head would: the first conn of that name.
class tovrin_conn_list {
    using storage = std::list<std::unique_ptr<tovrin_conn>>;

  public:
    class iterator {
      public:
        iterator() = default;
        explicit iterator(storage::iterator it) : it_(it) {}
        tovrin_conn &operator*() const { return **it_; }
        tovrin_conn *operator->() const { return it_->get(); }
        iterator &operator++() {
            ++it_;
            return *this;
        }
        iterator operator++(int) {
            iterator old = *this;
            ++it_;
            return old;
        }
        bool operator==(const iterator &other) const { return it_ == other.it_; }
        bool operator!=(const iterator &other) const { return it_ != other.it_; }

      private:
        friend class tovrin_conn_list;
        storage::iterator it_;
    };

    tovrin_conn_list() = default;
    tovrin_conn_list(const tovrin_conn_list &) = delete;
    tovrin_conn_list &operator=(const tovrin_conn_list &) = delete;
    ~tovrin_conn_list();

    // Appends conn at the tail and returns it, now owned by the list.
    tovrin_conn *push_back(std::unique_ptr<tovrin_conn> conn);
    // Takes conn out of the list and hands it back to the caller.
    std::unique_ptr<tovrin_conn> unlink(tovrin_conn *conn);
    std::unique_ptr<tovrin_conn> pop_front();
    // The first conn named name, or null. Logs nothing.
    tovrin_conn *find(std::string_view name) const;
    // Frees every conn, tail first.
    void clear();

    iterator begin() { return iterator(conns_.begin()); }
    iterator end() { return iterator(conns_.end()); }
    bool empty() const { return conns_.empty(); }
    size_t size() const { return conns_.size(); }
    tovrin_conn *front() const { return conns_.empty() ? nullptr : conns_.front().get(); }

  private:
    storage::iterator position_of(tovrin_conn *conn);

    storage conns_;
    // Name to position of the first conn of that name. Names are unique in
    // every list the daemon builds; later namesakes, should they ever be
    // added, are found by a walk when the indexed one leaves.
    std::unordered_map<std::string_view, storage::iterator> index_;
    size_t n_unindexed_ = 0;
};
