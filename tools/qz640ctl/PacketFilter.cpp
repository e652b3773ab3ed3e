#include "PacketFilter.h"

#include <algorithm>
#include <charconv>
#include <map>
#include <sstream>
#include <vector>

namespace ctl {

using Kind = FilterVerdict::Kind;

namespace {

enum class Match { Yes, Maybe, No };
enum class Action { None, Accept, Drop, Jump, Return };

struct Rule {
  std::string text;
  Match match = Match::Yes;
  Action action = Action::None;
  std::string target;  // of a jump

  void Restrict(Match other) { match = std::max(match, other); }
};

struct Chain {
  bool input = false;  // what comes to this host begins here
  bool drops = false;  // what no rule decides
  std::string policy;  // as it stands in the text
  std::vector<Rule> rules;
};

using Words = std::vector<std::string>;
using Chains = std::map<std::string, Chain>;  // by table and name

// "{ 15001, 8000-8010 }" becomes one word: the blanks inside say nothing.
Words Split(const std::string& line) {
  std::string packed;
  bool inSet = false;
  bool quoted = false;
  for (const char c : line) {
    if (c == '"') quoted = !quoted;
    if (c == '{') inSet = true;
    if (c == '}') inSet = false;
    if (c == '\t' || (quoted && c == ' ')) continue;
    if (inSet && c == ' ') continue;
    packed += c;
  }
  Words words;
  std::istringstream in(packed);
  for (std::string word; in >> word;)
    words.push_back(word);
  return words;
}

// "15001", "8000-8010" or "8000:8010", and several with commas between them.
Match PortIn(const std::string& list, uint16_t port) {
  std::string items = list;
  std::erase_if(items, [](char c) { return c == '{' || c == '}'; });
  std::istringstream in(items);
  for (std::string item; std::getline(in, item, ',');) {
    uint32_t first = 0;
    const char* end = item.data() + item.size();
    const auto parsed = std::from_chars(item.data(), end, first);
    if (parsed.ec != std::errc()) return Match::Maybe;  // a name
    uint32_t last = first;
    if (parsed.ptr != end) {
      const auto rest = std::from_chars(parsed.ptr + 1, end, last);
      if (rest.ec != std::errc() || rest.ptr != end) return Match::Maybe;
    }
    if (port >= first && port <= last) return Match::Yes;
  }
  return Match::No;
}

Match Not(Match match) {
  return match == Match::Yes ? Match::No : match == Match::No ? Match::Yes : Match::Maybe;
}

Match StateIsNew(const std::string& states) {
  std::string lower = states;
  for (char& c : lower)
    c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  if (lower.find("vmap") != std::string::npos) return Match::Maybe;
  return lower.find("new") != std::string::npos ? Match::Yes : Match::No;
}

bool IsOtherProtocol(const std::string& word) {
  static const std::vector<std::string> all{"tcp",  "icmp",      "icmpv6", "igmp",  "sctp",
                                            "dccp", "esp",       "ah",     "gre",   "ip6",
                                            "vrrp", "ipv6-icmp", "ospf",   "ipcomp"};
  return std::find(all.begin(), all.end(), word) != all.end();
}

// One rule of "nft list ruleset". A word that isn't known here is taken for a condition that may or
// may not hold.
Rule ParseNft(const Words& words, uint16_t port) {
  Rule rule;
  for (size_t i = 0; i < words.size(); ++i) {
    const std::string& word = words[i];
    const auto at = [&](size_t ahead) {
      return i + ahead < words.size() ? words[i + ahead] : std::string();
    };
    if (word == "udp" && at(1) == "dport") {
      const bool negated = at(2) == "!=";
      const Match match = PortIn(at(negated ? 3 : 2), port);
      rule.Restrict(negated ? Not(match) : match);
      i += negated ? 3 : 2;
    } else if ((word == "meta" && at(1) == "l4proto") || (word == "ip" && at(1) == "protocol")) {
      const std::string protocols = at(2) == "!=" ? at(3) : at(2);
      const Match match =
          protocols.find("udp") != std::string::npos || protocols == "17" ? Match::Yes : Match::No;
      rule.Restrict(at(2) == "!=" ? Not(match) : match);
      i += at(2) == "!=" ? 3 : 2;
    } else if (word == "iif" || word == "iifname") {
      const bool negated = at(1) == "!=";
      const std::string name = at(negated ? 2 : 1);
      const bool loopback = name == "\"lo\"" || name == "lo";
      rule.Restrict(!loopback ? Match::Maybe : negated ? Match::Yes : Match::No);
      i += negated ? 2 : 1;
    } else if (word == "ct" && at(1) == "state") {
      rule.Restrict(at(2) == "vmap" ? Match::Maybe : StateIsNew(at(2)));
      i += at(2) == "vmap" ? 3 : 2;
    } else if (word == "counter") {
      if (at(1) == "packets") i += 4;
    } else if (word == "comment") {
      ++i;
    } else if (word == "log") {
      while (at(1) == "prefix" || at(1) == "level" || at(1) == "flags" || at(1) == "group")
        i += 2;
    } else if (word == "accept" || word == "drop" || word == "reject" || word == "return") {
      rule.action = word == "accept"   ? Action::Accept
                    : word == "return" ? Action::Return
                                       : Action::Drop;
      break;  // "reject with ..." says no more
    } else if (word == "jump" || word == "goto") {
      rule.action = Action::Jump;
      rule.target = at(1);
      ++i;
    } else {
      rule.Restrict(IsOtherProtocol(word) ? Match::No : Match::Maybe);
    }
  }
  return rule;
}

// One rule of "iptables-save", from the word after the chain's name on.
Rule ParseIptables(const Words& words, uint16_t port) {
  Rule rule;
  bool negated = false;
  for (size_t i = 2; i < words.size(); ++i) {
    const std::string& word = words[i];
    const std::string next = i + 1 < words.size() ? words[i + 1] : std::string();
    if (word == "!") {
      negated = true;
      continue;
    }
    Match match = Match::Yes;
    if (word == "-p") {
      match = next == "udp" || next == "all" || next == "17" ? Match::Yes : Match::No;
    } else if (word == "--dport" || word == "--dports") {
      match = PortIn(next, port);
    } else if (word == "-i") {
      match = next == "lo" ? Match::No : Match::Maybe;
    } else if (word == "--ctstate" || word == "--state") {
      match = StateIsNew(next);
    } else if (word == "-j" || word == "-g") {
      rule.action = next == "ACCEPT"                     ? Action::Accept
                    : next == "DROP" || next == "REJECT" ? Action::Drop
                    : next == "RETURN"                   ? Action::Return
                    : next == "LOG"                      ? Action::None
                                                         : Action::Jump;
      rule.target = next;
      break;  // what follows is the target's own
    } else if (word != "-m" && word != "--comment") {
      match = Match::Maybe;
    }
    rule.Restrict(negated ? Not(match) : match);
    negated = false;
    ++i;
  }
  return rule;
}

Chains ParseNftChains(const std::string& text, uint16_t port) {
  Chains chains;
  std::istringstream in(text);
  std::string table;
  Chain* chain = nullptr;
  for (std::string line; std::getline(in, line);) {
    const Words words = Split(line);
    if (words.empty()) continue;
    if (words[0] == "table" && words.size() > 2) {
      // Only these families see IPv4 on its way to a program.
      table = words[1] == "ip" || words[1] == "inet" ? words[1] + " " + words[2] + " " : "";
    } else if (words[0] == "chain" && words.size() > 1) {
      chain = table.empty() ? nullptr : &chains[table + words[1].substr(0, words[1].find('{'))];
    } else if (words[0].front() == '}') {
      chain = nullptr;
    } else if (chain && words[0] == "type") {
      const auto hook = std::find(words.begin(), words.end(), "hook");
      chain->input = hook != words.end() && hook + 1 != words.end() && *(hook + 1) == "input" &&
                     words.size() > 1 && words[1] == "filter";
      chain->drops = line.find("policy drop") != std::string::npos;
      chain->policy = line;
    } else if (chain) {
      chain->rules.push_back(ParseNft(words, port));
      chain->rules.back().text = line;
      chain->rules.back().target = table + chain->rules.back().target;
    }
  }
  return chains;
}

Chains ParseIptablesChains(const std::string& text, uint16_t port) {
  Chains chains;
  std::istringstream in(text);
  bool filter = false;
  for (std::string line; std::getline(in, line);) {
    const Words words = Split(line);
    if (words.empty()) continue;
    if (words[0].front() == '*') {
      filter = words[0] == "*filter";
    } else if (filter && words[0].front() == ':' && words.size() > 1) {
      Chain& chain = chains[words[0].substr(1)];
      chain.input = words[0] == ":INPUT";
      chain.drops = words[1] == "DROP";
      chain.policy = line;
    } else if (filter && words[0] == "-A" && words.size() > 2) {
      chains[words[1]].rules.push_back(ParseIptables(words, port));
      chains[words[1]].rules.back().text = line;
    }
  }
  return chains;
}

// Walks the rules as the filter does. Where a rule that can't be decided could make the difference,
// the verdict is "unclear".
class Walk {
 public:
  explicit Walk(const Chains& chains) : chains_(chains) {}

  FilterVerdict Through(const Chain& chain) {
    FilterVerdict verdict;
    if (!Decide(chain, 0, verdict) && chain.drops) verdict = Drop(chain.policy);
    if (verdict.kind == Kind::Passes && unclear_) verdict.kind = Kind::Unclear;
    return verdict;
  }

 private:
  static constexpr int kDeepest = 16;

  FilterVerdict Drop(const std::string& rule) const {
    const size_t begin = rule.find_first_not_of(" \t");
    return {mayPass_ ? Kind::Unclear : Kind::Drops, rule.substr(std::min(begin, rule.size()))};
  }

  // True when the datagram's way ends in this chain.
  bool Decide(const Chain& chain, int depth, FilterVerdict& verdict) {
    for (const Rule& rule : chain.rules) {
      if (rule.match == Match::No) continue;
      const bool sure = rule.match == Match::Yes;
      switch (rule.action) {
        case Action::None:
          break;
        case Action::Accept:
          if (sure) return true;
          mayPass_ = true;
          break;
        case Action::Drop:
          if (sure) {
            verdict = Drop(rule.text);
            return true;
          }
          unclear_ = true;
          break;
        case Action::Return:
          if (sure) return false;
          unclear_ = true;
          break;
        case Action::Jump: {
          const auto target = chains_.find(rule.target);
          if (target == chains_.end() || depth == kDeepest) {
            unclear_ = mayPass_ = true;
            break;
          }
          FilterVerdict inner;
          const bool ends = Decide(target->second, depth + 1, inner);
          if (ends && sure) {
            verdict = inner;
            return true;
          }
          if (ends) (inner.kind == Kind::Passes ? mayPass_ : unclear_) = true;
          break;
        }
      }
    }
    return false;
  }

  const Chains& chains_;
  bool mayPass_ = false;  // some rule that wasn't decided accepts
  bool unclear_ = false;  // some rule that wasn't decided drops
};

}  // namespace

FilterVerdict JudgeUdp(const std::string& rules, uint16_t port) {
  const bool nft = rules.find("table ") != std::string::npos &&
                   rules.find("\n*") == std::string::npos && !rules.starts_with("*");
  const Chains chains = nft ? ParseNftChains(rules, port) : ParseIptablesChains(rules, port);
  FilterVerdict worst;
  for (const auto& [name, chain] : chains) {
    if (!chain.input) continue;
    const FilterVerdict verdict = Walk(chains).Through(chain);
    if (verdict.kind > worst.kind) worst = verdict;
  }
  return worst;
}

}  // namespace ctl
