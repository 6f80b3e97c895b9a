#include "solid/surface/AttributeBlock.h"

#include "common/Logger.h"

namespace Solid {

namespace {

constexpr const char* kWrongTypeMessage = "Attribute Block instantiated with a wrong type";

bool isValidType(int32_t type) {
    return type >= 0 && type < AttributeBlock::kNumTypes;
}

// Calls `f` with a null pointer of the array type that belongs to `type` (0 to 7).
template <typename F>
void withArrayType(AttributeBlock::TYPE type, F&& f) {
    using B = AttributeBlock;
    switch (type) {
        case B::TYPE_UINT8:
            return f(static_cast<AttributeVector<B::ElementOf<B::TYPE_UINT8>::type>*>(nullptr));
        case B::TYPE_VEC4F:
            return f(static_cast<AttributeVector<B::ElementOf<B::TYPE_VEC4F>::type>*>(nullptr));
        case B::TYPE_VEC3F:
            return f(static_cast<AttributeVector<B::ElementOf<B::TYPE_VEC3F>::type>*>(nullptr));
        case B::TYPE_VEC2F:
            return f(static_cast<AttributeVector<B::ElementOf<B::TYPE_VEC2F>::type>*>(nullptr));
        case B::TYPE_FLOAT:
            return f(static_cast<AttributeVector<B::ElementOf<B::TYPE_FLOAT>::type>*>(nullptr));
        case B::TYPE_INT32:
            return f(static_cast<AttributeVector<B::ElementOf<B::TYPE_INT32>::type>*>(nullptr));
        case B::TYPE_UINT16:
            return f(static_cast<AttributeVector<B::ElementOf<B::TYPE_UINT16>::type>*>(nullptr));
        case B::TYPE_UINT32:
            return f(static_cast<AttributeVector<B::ElementOf<B::TYPE_UINT32>::type>*>(nullptr));
        default:
            AR_LOG_ERROR("%s", kWrongTypeMessage);
            AR_ASSERT(isValidType(type));
    }
}

}  // namespace

AttributeBlock::~AttributeBlock() {
    if (mData == nullptr) {
        return;  // never created
    }
    withArrayType(mType, [this](auto* typed) {
        using Array = std::remove_pointer_t<decltype(typed)>;
        delete static_cast<Array*>(mData);
    });
}

void* AttributeBlock::create(TYPE type) {
    AR_ASSERT(mData == nullptr);
    if (!isValidType(type)) {
        mData = nullptr;
        mType = TYPE_INVALID;
    } else {
        mType = type;
    }
    withArrayType(mType, [this](auto* typed) {
        using Array = std::remove_pointer_t<decltype(typed)>;
        mData = new Array();
    });
    ++mModificationCount;
    return mData;
}

void AttributeBlock::clear() {
    withArrayType(mType, [this](auto* typed) {
        using Array = std::remove_pointer_t<decltype(typed)>;
        static_cast<Array*>(mData)->clear();
    });
    ++mModificationCount;
}

}  // namespace Solid
