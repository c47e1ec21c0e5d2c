// An address-mask table in memory.
#include "serve/image/MaskImage.h"

#include "address/EmailAddress.h"
#include "tables/AddressKey.h"
#include "tables/AliasGraph.h"
#include "tables/RowReader.h"

namespace Tessel::Serve {

using Tool::AddressIndex;

// Takes the rows of a table in.
class MaskImage::Reader {
 public:
  // `image` must outlive the reader.
  explicit Reader(MaskImage& image) : m_image(image) {}

  void take(std::string_view privateText, std::string_view publicText) {
    const bool isGood = m_reader.read(privateText, publicText) == Tool::RowFault::None;
    const auto& values = m_reader.values();
    const Side privateSide(privateText, m_reader.key());
    const Side publicSide(publicText, values.empty() ? "" : values.front());
    if (!isGood || privateSide.key.empty() || publicSide.key.empty()) {
      const std::string why = isGood ? "nobody can ask for it" : m_reader.why();
      m_image.m_brokenRows.add(privateText, publicText, why, privateSide.key);
      if (!publicSide.key.empty()) m_image.m_brokenPublic.insert(publicSide.key);
      return;
    }
    const RowStore::Id row = m_image.m_rows.add(privateText, publicText);
    const bool isWildCard = privateText.find('*') != std::string_view::npos ||
                            publicText.find('*') != std::string_view::npos;
    if (isWildCard) {
      addWildCard(std::string(Tool::domainOf(privateSide.address)),
                  std::string(Tool::domainOf(publicSide.address)));
    } else {
      add(m_image.m_byPrivate, privateSide.key, row);
      add(m_image.m_byPublic, publicSide.key, row);
    }
  }

  // Completes the image.
  void finish() {
    std::string key;
    for (const auto& [privateDomain, publicDomain] : m_domains) {
      if (Tool::domainKey(publicDomain, key)) m_image.m_toPrivate.emplace(key, privateDomain);
    }
    m_image.m_rows.shrink();
  }

 private:
  // One of the two addresses of a row.
  struct Side {
    // `parsed` is empty where `text` is no address: somebody may still ask for it.
    Side(std::string_view text, std::string_view parsed) : address(parsed) {
      if (!Tool::addressKey(parsed.empty() ? text : parsed, key)) key.clear();
    }

    std::string_view address;
    std::string key;  // Empty when it has none.
  };

  void addWildCard(const std::string& privateDomain, const std::string& publicDomain) {
    m_domains[privateDomain] = publicDomain;
    std::string key;
    if (Tool::domainKey(privateDomain, key)) m_image.m_toPublic[key] = publicDomain;
  }

  static void add(Index& index, const std::string& key, RowStore::Id row) {
    if (index.keys.add(key).isNew) index.rows.push_back(row);
  }

  MaskImage& m_image;
  Tool::RowReader m_reader{Tool::TableKind::Mask};
  // Private to public domain as the library orders them: the last row of a private domain wins.
  std::map<std::string, std::string> m_domains;
};

MaskImage::MaskImage(const RowSource& source) {
  Reader reader(*this);
  source([&reader](std::string_view privateText, std::string_view publicText) {
    reader.take(privateText, publicText);
  });
  reader.finish();
}

std::optional<std::string> MaskImage::find(Direction direction, std::string_view key) const {
  const bool toPublic = direction == Direction::ToPublic;
  const Index& index = toPublic ? m_byPrivate : m_byPublic;
  const AddressIndex::Id id = index.keys.find(key);
  if (id == AddressIndex::s_none) return std::nullopt;
  const RowStore::Id row = index.rows[id];
  const std::string_view text = toPublic ? m_rows.second(row) : m_rows.first(row);
  return EmailAddress::rfc5321Parse(text, false).address();
}

std::optional<std::string> MaskImage::findDomain(Direction direction, std::string_view key) const {
  const Domains& domains = direction == Direction::ToPublic ? m_toPublic : m_toPrivate;
  const auto found = domains.find(key);
  if (found == domains.end()) return std::nullopt;
  return found->second;
}

}  // namespace Tessel::Serve
