// The Python module camctl: cameras, recordings and motion events, with
// pictures as NumPy arrays. Built on the library's exported API only.
// Module set-up, errors and pictures here; camera.cpp and player.cpp add
// their classes.
#include <pybind11/eval.h>
#include <pybind11/numpy.h>
#include <pybind11/stl.h>

#include "core.h"

using namespace camctl_py;

PYBIND11_MODULE(camctl, m) {
    m.doc() =
        "IP cameras, recordings and motion events, with pictures as NumPy arrays.\n\n"
        "Pictures are uint8 arrays, H x W x 3 BGR rows top-down (as OpenCV uses them), or, for\n"
        "cameras opened with yuv=True, the I420 buffer as one (H * 3 / 2) x W array. Get them\n"
        "pushed to a callback (on_picture) or pull the newest one (latest, pictures).";

    py::exec(R"(
class Error(Exception):
    """Something the library refused."""

class OpenError(Error):
    """A camera stream or recording could not be opened.

    url: the URL, password masked; reason: the numeric reason; reason_name: its
    short name ("unreachable", "credentials refused", "not found", "no video",
    "bad url", "failed"); detail: what the library saw.
    """
    def __init__(self, message, url="", reason=6, reason_name="failed", detail=""):
        super().__init__(message)
        self.url, self.reason, self.reason_name, self.detail = url, reason, reason_name, detail

class UnreachableError(OpenError):
    """Nothing answered: connection refused, no route, unknown host, timeout."""

class CredentialsError(OpenError):
    """The server refused the credentials, or wanted some."""

class NotFoundError(OpenError):
    """The stream or file does not exist."""

class NoVideoError(OpenError):
    """The server answered, but no playable video came."""

class BadUrlError(OpenError):
    """Not a source the library can open."""
)",
             m.attr("__dict__"));

    py::class_<Frame, std::shared_ptr<Frame>>(m, "Picture",
                                              "One decoded picture. np.asarray(picture) is its image.")
        .def_readonly("seq", &Frame::seq, "Sequence number: 1, 2, ... per camera or player.")
        .def_readonly("time", &Frame::time, "When it was decoded, in seconds since the epoch.")
        .def_readonly("width", &Frame::width)
        .def_readonly("height", &Frame::height)
        .def_property_readonly("format", [](const Frame& f) { return f.planar ? "i420" : "bgr"; },
                               "'bgr' (H x W x 3) or 'i420'.")
        .def_property_readonly(
            "image", [](py::object self) { return FrameImage(self.cast<const Frame&>(), self); },
            "The picture as a read-only uint8 array (copy() it to draw on it): H x W x 3 BGR,\n"
            "or the I420 buffer as (H * 3 / 2) x W (cv2.COLOR_YUV2BGR_I420 converts it).")
        .def_property_readonly(
            "planes",
            [](py::object self) {
                const Frame& f = self.cast<const Frame&>();
                if (!f.planar) throw py::value_error("a BGR picture has no planes");
                const py::ssize_t w = f.width, h = f.height, cw = (w + 1) / 2, ch = (h + 1) / 2;
                const uint8_t* y = f.data.data();
                auto plane = [&](const uint8_t* p, py::ssize_t pw, py::ssize_t ph) {
                    py::array a(py::dtype::of<uint8_t>(), std::vector<py::ssize_t>{ph, pw}, std::vector<py::ssize_t>{pw, 1}, p, self);
                    py::detail::array_proxy(a.ptr())->flags &= ~py::detail::npy_api::NPY_ARRAY_WRITEABLE_;
                    return a;
                };
                return py::make_tuple(plane(y, w, h), plane(y + w * h, cw, ch), plane(y + w * h + cw * ch, cw, ch));
            },
            "I420 pictures: the (Y, U, V) planes as read-only arrays (H x W, H/2 x W/2 twice).")
        .def(
            "__array__",
            [](py::object self, py::object dtype) {
                py::array a = FrameImage(self.cast<const Frame&>(), self);
                return dtype.is_none() ? py::object(a) : a.attr("astype")(dtype);
            },
            py::arg("dtype") = py::none())
        .def("__repr__", [](const Frame& f) {
            return "<camctl.Picture seq=" + std::to_string(f.seq) + " " + std::to_string(f.width) + "x" +
                   std::to_string(f.height) + (f.planar ? " i420>" : " bgr>");
        });

    py::class_<PictureIterator>(m, "PictureIterator")
        .def("__iter__", [](py::object self) { return self; })
        .def("__next__", [](PictureIterator& it) {
            std::shared_ptr<Frame> f = Wait(*it.core, it.after, it.timeout);
            if (!f) throw py::stop_iteration();
            it.after = f->seq;
            return f;
        });

    BindCamera(m);
    BindPlayer(m);

    m.def("_live_pictures", [] { return Frame::live.load(); }, "Pictures alive now (for leak checks).");

    // Streams deliver on their own threads: they are closed before the
    // interpreter goes away.
    py::module_::import("atexit").attr("register")(py::cpp_function([] { Core::CloseAll(); }));
}
