// The name extensions of the tables of one kind, for C callers.
#ifndef TSL_CAPI_ADDRESSMAPTABLEEXTENSION_H
#define TSL_CAPI_ADDRESSMAPTABLEEXTENSION_H

#include <memory>
#include <set>
#include <string>

// The distinct extensions of the tables that begin with one prefix, as of construction: an
// immutable value that any threads may read. The order of the fields is part of the binary
// interface.
class AddressMapTableExtension {
 public:
  // Reads the names of all tables over a connection of its own. Throws Exception when they cannot
  // be read.
  explicit AddressMapTableExtension(const std::string& prefix);
  // The array points into the set.
  AddressMapTableExtension(const AddressMapTableExtension&) = delete;
  AddressMapTableExtension& operator=(const AddressMapTableExtension&) = delete;
  ~AddressMapTableExtension();

  // The extensions in ascending byte order and a null pointer, or null when there are none. Array
  // and strings are valid as long as this object and must not be changed.
  [[nodiscard]] char** extensionsAsCharArray() const { return m_extensionArray.get(); }

 private:
  std::set<std::string> m_extensions;
  std::unique_ptr<char*[]> m_extensionArray;
};

// Functor over table names: puts the text after the prefix and one more character into a set.
class AdapterTableExtension {
 public:
  // Both must outlive the functor.
  AdapterTableExtension(const std::string& prefix, std::set<std::string>& extensions)
      : m_prefix(prefix), m_extensions(extensions) {}

  // Skips the empty name, the prefix itself (the default table) and what does not begin with the
  // prefix. Deliberate: the one more character need not be "_". Pinned by
  // AdapterTableExtension.TheCharacterBehindThePrefixIsDroppedWhateverItIs.
  void operator()(const std::string& table) const;

 private:
  const std::string& m_prefix;
  std::set<std::string>& m_extensions;
};

#endif
