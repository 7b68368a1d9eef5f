#include "supervise/conn_list.h"

#include <functional>
#include <utility>

#include "supervise/conn.h"

tovrin_conn_list::iterator &tovrin_conn_list::iterator::operator++() {
    at_ = at_->list_next;
    return *this;
}

tovrin_conn_list::~tovrin_conn_list() {
    clear();
}

size_t tovrin_conn_list::bucket_of(std::string_view name) const {
    return std::hash<std::string_view>()(name) & (buckets_.size() - 1);
}

void tovrin_conn_list::reserve(size_t more) {
    size_t wanted = size_ + more;
    if (wanted <= buckets_.size())
        return;
    size_t n = buckets_.empty() ? 16 : buckets_.size();
    while (n < wanted)
        n *= 2;
    std::vector<tovrin_conn *> grown(n, nullptr);
    buckets_.swap(grown);
    // Pushing at the heads, from the tail up, leaves each chain in list
    // order, so the first of a name is still found first.
    for (tovrin_conn *conn = tail_; conn != nullptr; conn = conn->list_prev) {
        tovrin_conn *&head = buckets_[bucket_of(conn->name)];
        conn->index_next = head;
        head = conn;
    }
}

void tovrin_conn_list::index_insert(tovrin_conn *conn) {
    tovrin_conn **slot = &buckets_[bucket_of(conn->name)];
    while (*slot != nullptr)
        slot = &(*slot)->index_next;
    conn->index_next = nullptr;
    *slot = conn;
}

void tovrin_conn_list::index_remove(tovrin_conn *conn) {
    tovrin_conn **slot = &buckets_[bucket_of(conn->name)];
    while (*slot != conn)
        slot = &(*slot)->index_next;
    *slot = conn->index_next;
    conn->index_next = nullptr;
}

tovrin_conn *tovrin_conn_list::push_back(std::unique_ptr<tovrin_conn> &&conn) {
    reserve(1);
    tovrin_conn *raw = conn.release();
    raw->list_prev = tail_;
    raw->list_next = nullptr;
    if (tail_ != nullptr)
        tail_->list_next = raw;
    else
        head_ = raw;
    tail_ = raw;
    size_++;
    index_insert(raw);
    return raw;
}

std::unique_ptr<tovrin_conn> tovrin_conn_list::unlink(tovrin_conn *conn) {
    // A conn in no list has no neighbours and is nobody's head.
    if (conn == nullptr || (conn->list_prev == nullptr && conn != head_))
        return nullptr;
    index_remove(conn);
    (conn->list_prev != nullptr ? conn->list_prev->list_next : head_) = conn->list_next;
    (conn->list_next != nullptr ? conn->list_next->list_prev : tail_) = conn->list_prev;
    conn->list_prev = conn->list_next = nullptr;
    size_--;
    return std::unique_ptr<tovrin_conn>(conn);
}

std::unique_ptr<tovrin_conn> tovrin_conn_list::pop_front() {
    return unlink(head_);
}

tovrin_conn *tovrin_conn_list::find(std::string_view name) const {
    if (buckets_.empty())
        return nullptr;
    for (tovrin_conn *conn = buckets_[bucket_of(name)]; conn != nullptr; conn = conn->index_next) {
        if (conn->name == name)
            return conn;
    }
    return nullptr;
}

void tovrin_conn_list::clear() {
    while (tail_ != nullptr)
        unlink(tail_).reset();
}
