// ignore-peer RULES PATHS: the nanoseconds of a query of the crate "ignore", asked with parents, for the rules
// of a gitignore file and the paths of a file, a line each; a directory's path ends in "/".
use ignore::gitignore::GitignoreBuilder;
use std::{env, fs, hint::black_box, time::Instant};

const MOST_SECONDS: f64 = 2.0;

fn main() {
    let arguments: Vec<String> = env::args().collect();
    let mut builder = GitignoreBuilder::new("/");
    if let Some(error) = builder.add(&arguments[1]) {
        panic!("{}: {}", arguments[1], error);
    }
    let rules = builder.build().expect("the rules");
    let text = fs::read_to_string(&arguments[2]).expect("the paths");
    let paths: Vec<(&str, bool)> = text
        .lines()
        .map(|line| (line.trim_end_matches('/'), line.ends_with('/')))
        .collect();

    // Many rules make it slow, so that it is asked for a limited time.
    let start = Instant::now();
    let mut asked = 0;
    let mut ignored = 0;
    for (path, is_directory) in &paths {
        let answer = rules.matched_path_or_any_parents(black_box(path), *is_directory);
        ignored += answer.is_ignore() as usize;
        asked += 1;
        if asked % 64 == 0 && start.elapsed().as_secs_f64() > MOST_SECONDS {
            break;
        }
    }
    let nanoseconds = start.elapsed().as_nanos() as f64 / asked as f64;
    black_box(ignored);
    println!("{:.1}", nanoseconds);
}
