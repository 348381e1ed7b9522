// The base library's containers are the standard ones.
#pragma once

#include <list>
#include <map>
#include <vector>

namespace kx {

template <class T>
using TArray = std::vector<T>;
template <class T>
using TList = std::list<T>;
template <class K, class V, class Less = std::less<K>>
using TMap = std::map<K, V, Less>;

}  // namespace kx
