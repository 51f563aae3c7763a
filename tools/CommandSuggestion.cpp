#include "CommandSuggestion.h"

#include <algorithm>

namespace x509auth_tool {
namespace {

// The number of single-character edits from |a| to |b|.
std::size_t EditDistance(const std::string& a, const std::string& b) {
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t above = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[b.size()];
}

}  // namespace

std::string UnknownCommand(const std::string& word, const std::vector<Command>& commands) {
  std::string message = "unknown command '" + word + "'";
  std::string best;
  std::size_t best_distance = 3;  // more edits than two is no longer a typo
  for (const Command& command : commands) {
    const std::string& name = command.app->get_name();
    const std::size_t distance = EditDistance(word, name);
    if (distance < best_distance || (name.rfind(word, 0) == 0 && !word.empty())) {
      best = name;
      best_distance = distance < best_distance ? distance : best_distance;
    }
  }
  if (!best.empty()) message += " (did you mean '" + best + "'?)";
  return message + "; the commands are listed by 'x509-auth --help'";
}

}  // namespace x509auth_tool
