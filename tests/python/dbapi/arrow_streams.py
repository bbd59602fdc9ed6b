"""Arrow streams out of plain memory, right ones and wrong ones, which count their releases."""

import ctypes
import struct

_void, _pointer, _int, _text = ctypes.c_void_p, ctypes.POINTER, ctypes.c_int64, ctypes.c_char_p


class Schema(ctypes.Structure):
    pass


class Array(ctypes.Structure):
    pass


class Stream(ctypes.Structure):
    pass


_release = {kind: ctypes.CFUNCTYPE(None, _pointer(kind)) for kind in (Schema, Array, Stream)}


Schema._fields_ = [("format", _text), ("name", _text), ("metadata", _text), ("flags", _int),
                   ("n_children", _int), ("children", _pointer(_pointer(Schema))),
                   ("dictionary", _pointer(Schema)), ("release", _release[Schema]),
                   ("private_data", _void)]
Array._fields_ = [("length", _int), ("null_count", _int), ("offset", _int), ("n_buffers", _int),
                  ("n_children", _int), ("buffers", _pointer(_void)),
                  ("children", _pointer(_pointer(Array))), ("dictionary", _pointer(Array)),
                  ("release", _release[Array]), ("private_data", _void)]
_get = {kind: ctypes.CFUNCTYPE(ctypes.c_int, _pointer(Stream), _pointer(kind))
        for kind in (Schema, Array)}
_last_error = ctypes.CFUNCTYPE(_void, _pointer(Stream))
Stream._fields_ = [("get_schema", _get[Schema]), ("get_next", _get[Array]),
                   ("get_last_error", _last_error), ("release", _release[Stream]),
                   ("private_data", _void)]
_capsule = ctypes.pythonapi.PyCapsule_New
_capsule.restype, _capsule.argtypes = ctypes.py_object, [_void, _text, _void]


def numbers(code, *values):
    return struct.pack("<%d%s" % (len(values), code), *values)


class Data:
    """One column "x" in a batch, and what is told of it: `array`, `batch` and `schema` replace
    fields."""

    def __init__(self, format, length, *buffers, dictionary=None, error=None, array=(), batch=(),
                 schema=(), batches=1):
        self.kept, self.made, self.released = [], 0, 0
        self.format, self.length, self.buffers = format, length, buffers
        self.dictionary, self.error, self.batches = dictionary, error, batches
        self.wrong = {"array": dict(array), "batch": dict(batch), "schema": dict(schema)}

    def _fill(self, out, fields):
        """Writes a structure of its own; its release counts."""
        kind = type(out)

        def release(given):
            self.released += 1
            given[0].release = _release[kind]()

        own = kind(release=_release[kind](release), **fields)
        self.made += 1
        self.kept.append(own)
        ctypes.memmove(ctypes.byref(out), ctypes.byref(own), ctypes.sizeof(own))

    def _pointers(self, item, values):
        made = (item * len(values))(*values)
        self.kept.append(made)
        return made

    def _own(self, structure):
        self.kept.append(structure)
        return ctypes.pointer(structure)

    def _schema(self, out):
        other = self.dictionary and self._own(Schema(format=self.dictionary.format))
        child = self._own(Schema(format=self.format, name=b"x", dictionary=other))
        self._fill(out, {"format": b"+s", "n_children": 1,
                         "children": self._pointers(_pointer(Schema), [child]),
                         **self.wrong["schema"]})

    def _array(self):
        memory = [b and ctypes.create_string_buffer(b, len(b)) for b in self.buffers]
        self.kept += memory
        other = self.dictionary and self.dictionary._array()
        made = Array(**{"length": self.length, "n_buffers": len(memory), "null_count": -1,
                        "buffers": self._pointers(_void, [m and ctypes.addressof(m)
                                                          for m in memory]),
                        "dictionary": other, **self.wrong["array"]})
        self.kept.append(self.dictionary)
        return self._own(made)

    def _next(self, out):
        if self.error:
            return 5
        if self.batches:
            self.batches -= 1
            children = self._pointers(_pointer(Array), [self._array()])
            self._fill(out, {"length": self.length, "n_buffers": 1, "n_children": 1,
                             "buffers": self._pointers(_void, [None]), "children": children,
                             **self.wrong["batch"]})
        return 0

    def __arrow_c_stream__(self, requested_schema=None):
        words = self.error and ctypes.create_string_buffer(self.error)
        stream = Stream()
        self._fill(stream, {
            "get_schema": _get[Schema](lambda _, out: self._schema(out[0]) or 0),
            "get_next": _get[Array](lambda _, out: self._next(out[0])),
            "get_last_error": _last_error(lambda _: words and ctypes.addressof(words))})
        self.kept += [stream, words]
        return _capsule(ctypes.addressof(stream), b"arrow_array_stream", None)
