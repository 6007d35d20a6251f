#include "model/ShowDocument.h"

ShowDocument::ShowDocument() {
    KeyPage first;
    first.name = QStringLiteral("ページ 1");
    pages.push_back(std::move(first));
}

QUuid ShowDocument::currentPageID() const {
    return currentPage < pages.size() ? pages[currentPage].id : QUuid();
}

std::optional<QString> ShowDocument::pageName(const QUuid& id) const {
    for (const KeyPage& page : pages) {
        if (page.id == id)
            return page.name;
    }
    return std::nullopt;
}

void ShowDocument::storeCurrentPage() {
    if (currentPage < pages.size())
        pages[currentPage].keys = assignments;
}

void ShowDocument::loadPage(std::size_t index) {
    if (index >= pages.size())
        return;
    currentPage = index;
    assignments = pages[index].keys;
    deckTabs.clear();
    activeDeckTab.reset();
}

std::vector<KeyAssignment> ShowDocument::allAssignments() const {
    std::vector<KeyAssignment> all;
    for (std::size_t p = 0; p < pages.size(); ++p) {
        const auto& keys = p == currentPage ? assignments : pages[p].keys;
        for (const auto& [code, assignment] : keys)
            all.push_back(assignment);
    }
    return all;
}
