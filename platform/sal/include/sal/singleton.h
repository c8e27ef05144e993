// Holder of a process-wide single instance of T, shared across shared libraries.
//
// createInstance() asserts that there is none yet and constructs one; T is expected to register
// itself in s_pInstance from its constructor (CmdProcessor does), and createInstance stores the new
// object itself if it did not. destroyInstance() deletes the instance, if any, and clears it.
// Not thread-safe: create and destroy from one thread, at start-up and shut-down.
#ifndef SAL_SINGLETON_H
#define SAL_SINGLETON_H

#include <cstddef>

#include <sal/assert.h>

namespace sal {

template <class T>
class SingletonDll {
public:
    static T* s_pInstance;

    static void createInstance() {
        SAL_ASSERT(s_pInstance == NULL);
        T* pInstance = new T();
        if (s_pInstance == NULL) {
            s_pInstance = pInstance;
        }
    }

    static T* getInstance() { return s_pInstance; }

    static void destroyInstance() {
        if (s_pInstance != NULL) {
            delete s_pInstance;
        }
        s_pInstance = NULL;
    }
};

template <class T>
T* SingletonDll<T>::s_pInstance = NULL;

}  // namespace sal

#endif  // SAL_SINGLETON_H
