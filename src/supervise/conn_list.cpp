#include "supervise/conn_list.h"

#include <utility>

#include "supervise/conn.h"

tovrin_conn_list::~tovrin_conn_list() {
    clear();
}

tovrin_conn *tovrin_conn_list::push_back(std::unique_ptr<tovrin_conn> conn) {
    tovrin_conn *raw = conn.get();
    conns_.push_back(std::move(conn));
    if (!index_.emplace(raw->name, std::prev(conns_.end())).second)
        n_unindexed_++;
    return raw;
}

tovrin_conn_list::storage::iterator tovrin_conn_list::position_of(tovrin_conn *conn) {
    auto indexed = index_.find(conn->name);
    if (indexed != index_.end() && indexed->second->get() == conn)
        return indexed->second;
    for (auto it = conns_.begin(); it != conns_.end(); ++it) {
        if (it->get() == conn)
            return it;
    }
    return conns_.end();
}

std::unique_ptr<tovrin_conn> tovrin_conn_list::unlink(tovrin_conn *conn) {
    if (conn == nullptr)
        return nullptr;
    auto pos = position_of(conn);
    if (pos == conns_.end())
        return nullptr;

    auto indexed = index_.find(conn->name);
    if (indexed != index_.end() && indexed->second == pos) {
        index_.erase(indexed);
        if (n_unindexed_ > 0) {
            // A namesake further down takes over the index entry.
            for (auto it = std::next(pos); it != conns_.end(); ++it) {
                if ((*it)->name == conn->name) {
                    index_.emplace((*it)->name, it);
                    n_unindexed_--;
                    break;
                }
            }
        }
    } else {
        n_unindexed_--;
    }

    std::unique_ptr<tovrin_conn> owned = std::move(*pos);
    conns_.erase(pos);
    return owned;
}

std::unique_ptr<tovrin_conn> tovrin_conn_list::pop_front() {
    return conns_.empty() ? nullptr : unlink(conns_.front().get());
}

tovrin_conn *tovrin_conn_list::find(std::string_view name) const {
    auto indexed = index_.find(name);
    return indexed == index_.end() ? nullptr : indexed->second->get();
}

void tovrin_conn_list::clear() {
    index_.clear();
    n_unindexed_ = 0;
    while (!conns_.empty())
        conns_.pop_back();
}
