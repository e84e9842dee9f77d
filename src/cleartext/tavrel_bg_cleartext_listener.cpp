#include "cleartext/tavrel_bg_cleartext_listener.h"

Tavrel_BG_Cleartext_listener::~Tavrel_BG_Cleartext_listener() = default;

void Tavrel_BG_Cleartext_listener::completed() {}

void Tavrel_BG_Cleartext_listener::failed(int, std::string) {}
