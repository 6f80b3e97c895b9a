#include "cv/Image.h"

#include "cv/ImageImpl.h"

namespace AR {
namespace CV {

template class Image<float>;
template class Image<unsigned short>;
template class Image<unsigned char>;
template class Image<Pixel24>;

}  // namespace CV
}  // namespace AR
