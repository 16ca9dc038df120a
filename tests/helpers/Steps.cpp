#include "helpers/Steps.h"

#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

namespace zmhelper {
namespace {
std::map<std::string, Step>& Registry() {
    static std::map<std::string, Step> steps;
    return steps;
}
}  // namespace

bool AddStep(const char* name, Step step) {
    return Registry().emplace(name, std::move(step)).second;
}

const Step* FindStep(const std::string& name) {
    const auto it = Registry().find(name);
    return it == Registry().end() ? nullptr : &it->second;
}

void Say(const std::string& text) {
    std::printf("%s\n", text.c_str());
    std::fflush(stdout);
}

bool LineArrived(bool wait) {
    pollfd p{0, POLLIN, 0};
    if (poll(&p, 1, wait ? -1 : 0) <= 0) return false;
    char c = 0;
    while (read(0, &c, 1) == 1 && c != '\n') {
    }
    return true;
}

std::vector<unsigned long> Numbers(const std::string& args) {
    std::vector<unsigned long> n;
    for (const char* p = args.c_str(); *p != '\0';) {
        char* end = nullptr;
        n.push_back(std::strtoul(p, &end, 10));
        p = *end == ',' ? end + 1 : end + std::strlen(end);
    }
    return n;
}

}  // namespace zmhelper
