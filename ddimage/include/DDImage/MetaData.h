#pragma once
// Metadata passed down the graph: named values an op hands on to its outputs.

#include <cstddef>
#include <map>
#include <string>

namespace DD {
namespace Image {
namespace MetaData {

class Bundle {
public:
  std::size_t size() const { return data_.size(); }
  bool empty() const { return data_.empty(); }
  void setData(const std::string& key, const std::string& value) { data_[key] = value; }
  void setData(const std::string& key, double value) { data_[key] = std::to_string(value); }

  // Host side: the value of key as text, or "" when it is not there.
  std::string getString(const std::string& key) const {
    auto it = data_.find(key);
    return it == data_.end() ? std::string() : it->second;
  }

private:
  std::map<std::string, std::string> data_;
};

}  // namespace MetaData
}  // namespace Image
}  // namespace DD
