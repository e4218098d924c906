#include "net/block_tally.h"

namespace tarvex::server {

std::string block_tally::too_many_opened() const {
  if (announced_ && opened_ > *announced_)
    return "More data connections were opened than the " + std::to_string(*announced_) + " that the end announced.";
  return "";
}

std::string block_tally::opened() {
  if (++opened_ > most_) return "At most " + std::to_string(most_) + " data connections are taken for one transfer.";
  return too_many_opened();
}

std::string block_tally::end_of_data() {
  ++ended_;
  if (announced_ && ended_ > *announced_)
    return "More data connections ended than the " + std::to_string(*announced_) + " that were announced.";
  return "";
}

std::string block_tally::end_of_file(std::uint64_t announced) {
  if (announced_) return "The end of the file was announced twice.";
  if (announced == 0) return "The end of the file was announced with no data connection.";
  if (announced > most_)
    return "The end of the file was announced for " + std::to_string(announced) + " data connections; at most " +
           std::to_string(most_) + " are taken for one transfer.";
  announced_ = static_cast<unsigned>(announced);
  if (ended_ > announced)
    return "More data connections ended than the " + std::to_string(announced) + " that were announced.";
  return too_many_opened();
}

}  // namespace tarvex::server
