# A runtime error raised two calls deep: the host reports the line of the
# innermost frame, relative to this file.
def outer():
    return inner()

def inner():
    raise ValueError("something went wrong in inner()")

outer()
