// Counts of users by what they use, that a request changes step by step. When the request is refused all go back to
// what they were; otherwise it is told which came into use by it and which went out of use.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

namespace kap_node
{

template <class Key> class user_counts
{
public:
    uint64_t of(const Key &key) const
    {
        const auto found = counts_.find(key);
        return found == counts_.end() ? 0 : found->second;
    }
    size_t size() const { return counts_.size(); }
    const std::map<Key, uint64_t> &all() const { return counts_; }

    void set(const Key &key, uint64_t count)
    {
        before_.try_emplace(key, of(key));
        put(key, count);
    }
    void add(const Key &key) { set(key, of(key) + 1); }
    void take(const Key &key) { set(key, of(key) - 1); }

    // Since the request began: in use now and not before, and the other way round.
    std::vector<Key> fresh() const { return changed(false); }
    std::vector<Key> gone() const { return changed(true); }

    // The request has ended.
    void keep() { before_.clear(); }
    void take_back()
    {
        for (const auto &[key, count] : before_) {
            put(key, count);
        }
        before_.clear();
    }

private:
    void put(const Key &key, uint64_t count)
    {
        if (count == 0) {
            counts_.erase(key);
        } else {
            counts_[key] = count;
        }
    }
    std::vector<Key> changed(bool was_in_use) const
    {
        std::vector<Key> keys;
        for (const auto &[key, count] : before_) {
            if ((count != 0) == was_in_use && (of(key) == 0) == was_in_use) {
                keys.push_back(key);
            }
        }
        return keys;
    }

    std::map<Key, uint64_t> counts_;
    std::map<Key, uint64_t> before_;
};

} // namespace kap_node
