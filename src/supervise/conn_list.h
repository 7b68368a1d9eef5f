#pragma once

#include <cstddef>
#include <memory>
#include <string_view>
#include <vector>

struct tovrin_conn;

// An ordered list that owns its conns (`conns` and `new_conns` of the
// instance). The links live in the conns themselves, so moving a conn from
// one list to another allocates nothing. Lookups by name go through an index
// whose chains also live in the conns, and return what a walk from the head
// would: the first conn of that name.
class tovrin_conn_list {
  public:
    class iterator {
      public:
        iterator() = default;
        explicit iterator(tovrin_conn *at) : at_(at) {}
        tovrin_conn &operator*() const { return *at_; }
        tovrin_conn *operator->() const { return at_; }
        iterator &operator++();
        iterator operator++(int) {
            iterator old = *this;
            ++*this;
            return old;
        }
        bool operator==(const iterator &other) const { return at_ == other.at_; }
        bool operator!=(const iterator &other) const { return at_ != other.at_; }

      private:
        tovrin_conn *at_ = nullptr;
    };

    tovrin_conn_list() = default;
    tovrin_conn_list(const tovrin_conn_list &) = delete;
    tovrin_conn_list &operator=(const tovrin_conn_list &) = delete;
    ~tovrin_conn_list();

    // Makes room for `more` conns beyond those held, so that as many
    // push_backs cannot fail. May throw std::bad_alloc, changing nothing.
    void reserve(size_t more);
    // Appends conn at the tail and returns it, now owned by the list. May
    // throw std::bad_alloc when the index must grow; conn is then left with
    // the caller.
    tovrin_conn *push_back(std::unique_ptr<tovrin_conn> &&conn);
    // Takes conn out of the list and hands it back to the caller; null when
    // conn is in no list. conn must not be in another list.
    std::unique_ptr<tovrin_conn> unlink(tovrin_conn *conn);
    std::unique_ptr<tovrin_conn> pop_front();
    // The first conn named name, or null. Logs nothing.
    tovrin_conn *find(std::string_view name) const;
    // Frees every conn, tail first.
    void clear();

    iterator begin() const { return iterator(head_); }
    iterator end() const { return iterator(); }
    bool empty() const { return head_ == nullptr; }
    size_t size() const { return size_; }
    tovrin_conn *front() const { return head_; }

  private:
    size_t bucket_of(std::string_view name) const;
    void index_insert(tovrin_conn *conn);
    void index_remove(tovrin_conn *conn);

    tovrin_conn *head_ = nullptr;
    tovrin_conn *tail_ = nullptr;
    size_t size_ = 0;
    // Chains of conns by name hash, through index_next, each in list order.
    std::vector<tovrin_conn *> buckets_;
};
