# Host objects in Python: the module kest.demo, declared by the host.
from kest.demo import Vector, Shape, Drawing, Palette, Countdown, Scaler, DemoError, greet

v, w = Vector(1, 2), Vector(3, 5)
print("vectors:", v + w, w - v, v * 3, w / 2, ~v, "v < w:", v < w)

drawing = Drawing()
drawing.append(Shape("circle", 1.0, name="sun"))
drawing.append(Shape("square", 2.0, name="house"))
extra = Drawing()
extra.append(Shape("triangle", 3.0))
drawing += extra
print("drawing:", [s.describe(suffix=".") for s in drawing], "len", len(drawing))

palette = Palette()
palette["sky"] = "#87ceeb"
print("palette:", {name: palette[name] for name in palette})

print("countdown:", list(Countdown(3)), "scaler:", Scaler(2.5)(4), greet("script", greeting="Hi"))
try:
    drawing[0].explode()
except DemoError as e:
    print("caught the host's DemoError:", e)
print("total area:", round(drawing.totalArea(), 3))
