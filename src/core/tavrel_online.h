// Whether the view works with its server. Online (the start value) the name service may ask the server
// for what the view database does not know; offline it answers from what it holds, and what it does not
// hold is reported missing at once. Set by the view's start (the `online` attribute of its server
// information), by a failed login and by Connect and Disconnect; read by every layer from the WAN client
// up. One atomic word: no lock, and a reader sees either value.
#pragma once

bool tavrel_is_online();
void tavrel_set_online(bool online);
