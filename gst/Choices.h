#pragma once

// Which source and which settings a user's words mean. Pure functions; errors are thrown as brv::Error with what there
// is to choose from.

#include "Capture.h"

namespace brvgst {

/// There is no source with what is asked for at present.
class Missing : public brv::Error {
  using brv::Error::Error;
};

/// The one that an order means. Throws Missing, or brv::Error where it could be several.
const Description& chosenSource(const std::vector<Description>& sources, const Order& order);

/// The index of the choice with that title, that index, or a title that begins so.
int chosenOption(const std::vector<brv::Option>& options, const std::string& wanted);
/// The same for frame rates: a number or a fraction is a rate.
int chosenRate(const std::vector<brv::Option>& options, const std::string& wanted);

/// The size at the end of a format's title; {0, 0} when there is none.
std::pair<int, int> sizeIn(const std::string& title);

}  // namespace brvgst
