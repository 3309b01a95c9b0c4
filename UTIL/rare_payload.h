// A payload that few objects carry, kept out of line so that the objects
// stay small: nothing until first written, then one block of its own.  A
// copy of the owner gets a copy of the payload.
#pragma once

template <class T>
class rare_payload {
public:
    rare_payload() = default;
    rare_payload(const rare_payload& o) : p_(o.p_ ? new T(*o.p_) : nullptr) {}
    rare_payload& operator=(const rare_payload& o) {
        if (this != &o) reset(o.p_ ? new T(*o.p_) : nullptr);
        return *this;
    }
    ~rare_payload() { delete p_; }

    // The payload, or one of defaults when there is none.
    const T& read() const {
        static const T none{};
        return p_ ? *p_ : none;
    }
    // The payload, made on first use.
    T& write() {
        if (!p_) p_ = new T;
        return *p_;
    }
    bool present() const { return p_ != nullptr; }
    T* get() const { return p_; }
    T* release() {
        T* p = p_;
        p_ = nullptr;
        return p;
    }
    void reset(T* p) {
        delete p_;
        p_ = p;
    }

private:
    T* p_ = nullptr;
};
