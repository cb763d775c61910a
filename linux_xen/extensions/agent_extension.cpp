// The module entry, built once for each Python. This file alone sees the interpreter's headers.
#ifdef ZORVIK_PYTHON3
#define Py_LIMITED_API 0x03030000
#endif
#include <Python.h>

#include <cstring>

#include "agent_common.h"
#include "agent_discover.h"
#include "agent_handles.h"
#include "agent_status.h"

namespace zorvik
{

namespace
{

#ifdef ZORVIK_PYTHON3

/** A text as str, or None for null. A byte that is no UTF-8 becomes a lone surrogate. */
PyObject *text_object(void *text)
{
    if (!text)
        return Py_BuildValue("");
    const char *bytes = static_cast<const char *>(text);
    return PyUnicode_DecodeUTF8(bytes, static_cast<Py_ssize_t>(strlen(bytes)), "surrogateescape");
}

PyObject *build_result(int status, const conn_t &answer)
{
    return Py_BuildValue("iO&O&", status, text_object, answer.response, text_object, answer.logmsg);
}

#else

PyObject *build_result(int status, const conn_t &answer)
{
    return Py_BuildValue("iss", status, answer.response, answer.logmsg);
}

#endif

/**
 * Builds the tuple of a finished call. The record is emptied first: where the interpreter allocates
 * it may run anything, a finalizer, another thread, this module again.
 */
PyObject *finish(int status, conn_t *conn)
{
    const conn_t answer = conn_take(conn);
    const unique_text response{answer.response};
    const unique_text logmsg{answer.logmsg};
    return build_result(status, answer);
}

PyObject *ZorvikDiscoverExtension_discover_hardware(PyObject *, PyObject *)
{
    conn_t *conn = new_conn();
    return finish(agent_discover_hardware(conn), conn);
}

PyObject *ZorvikDiscoverExtension_discover_network(PyObject *, PyObject *args)
{
    int indent = 0;
    if (!PyArg_ParseTuple(args, "i", &indent))
        return nullptr;
    conn_t *conn = new_conn();
    return finish(agent_discover_network(indent), conn);
}

PyObject *ZorvikDiscoverExtension_status(PyObject *, PyObject *args)
{
    const char *cmdstring = nullptr;
    if (!PyArg_ParseTuple(args, "s", &cmdstring))
        return nullptr;
    conn_t *conn = new_conn();
    return finish(agent_status(conn, cmdstring), conn);
}

PyObject *ZorvikDiscoverExtension_unique_id(PyObject *, PyObject *)
{
    conn_t *conn = new_conn();
    return finish(agent_unique_id(conn), conn);
}

PyMethodDef ZorvikDiscoverExtensionMethods[] = {
    {"discover_hardware", ZorvikDiscoverExtension_discover_hardware, METH_VARARGS, nullptr},
    {"discover_network", ZorvikDiscoverExtension_discover_network, METH_VARARGS, nullptr},
    {"status", ZorvikDiscoverExtension_status, METH_VARARGS, nullptr},
    {"unique_id", ZorvikDiscoverExtension_unique_id, METH_VARARGS, nullptr},
    {nullptr, nullptr, 0, nullptr},
};

constexpr char module_name[] = "ZorvikDiscoverExtension";

} // namespace

#ifdef ZORVIK_PYTHON3

MODULE_EXPORT PyObject *PyInit_ZorvikDiscoverExtension()
{
    static PyModuleDef definition = {
        PyModuleDef_HEAD_INIT,
        module_name,
        nullptr,
        -1,
        ZorvikDiscoverExtensionMethods,
        nullptr,
        nullptr,
        nullptr,
        nullptr,
    };
    return PyModule_Create(&definition);
}

#else

MODULE_EXPORT void initZorvikDiscoverExtension()
{
    Py_InitModule4(module_name, ZorvikDiscoverExtensionMethods, nullptr, nullptr,
                   PYTHON_API_VERSION);
}

#endif

} // namespace zorvik
