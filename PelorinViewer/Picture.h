#pragma once

#include "PelorinPhone/DecodedPicture.h"
#include "PelorinViewer/ViewerOptions.h"

#include <string>

// What the viewer does with pictures besides showing them.
namespace pelorin {

// Whether something on the screen changed between two pictures, from a letter or a pointer up; what a codec
// refines in a picture that stands still does not count. Pictures of different size differ.
bool showsChange(const DecodedPicture& before, const DecodedPicture& after);

// The mean luma, 0 to 255, of the part of rect that lies in the picture; 0 when none does.
double meanLuma(const DecodedPicture& picture, const PictureRect& rect);

// Writes the picture as an 8-bit RGB PNG; on failure says why.
Result<void, std::string> writePNG(const DecodedPicture& picture, const std::string& file);

} // namespace pelorin
