// Returns the edges of the disc in the page's picture: the pixels that are far more green than red.
const picture = document.querySelector('canvas').getContext('2d');
const {data} = picture.getImageData(0, 0, 960, 540);
const disc = Array.from({length: 960 * 540}, (_, i) => i)
    .filter(i => data[4 * i + 1] > 1.5 * data[4 * i]);
const xs = disc.map(i => i % 960), ys = disc.map(i => Math.floor(i / 960));
const least = values => values.reduce((a, b) => Math.min(a, b));
const most = values => values.reduce((a, b) => Math.max(a, b));
return {left: least(xs), right: most(xs), top: least(ys), bottom: most(ys)};
